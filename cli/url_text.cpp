#include "url_text.h"

#include <algorithm>
#include <cctype>

#include "failure.h"
#include "usage_error.h"

namespace kovo::cli {

namespace {

bool isControl(char c) {
  const auto byte = static_cast<unsigned char>(c);
  return byte < 0x20 || byte == 0x7F;
}

int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

std::string percentDecoded(std::string_view text) {
  std::string decoded;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '%' && i + 2 < text.size() && hexValue(text[i + 1]) >= 0 &&
        hexValue(text[i + 2]) >= 0) {
      decoded += static_cast<char>(hexValue(text[i + 1]) * 16 + hexValue(text[i + 2]));
      i += 2;
    } else {
      decoded += text[i];
    }
  }
  return decoded;
}

// The bounds of the authority ("user:password@host:port"); both npos without one.
struct Authority {
  std::size_t begin = std::string_view::npos;
  std::size_t end = std::string_view::npos;
};

Authority findAuthority(std::string_view url) {
  const std::size_t slashes = url.find("://");
  if (slashes == std::string_view::npos) return {};
  const std::size_t begin = slashes + 3;
  return {begin, std::min(url.find_first_of("/?#", begin), url.size())};
}

}  // namespace

std::string printable(std::string_view text) {
  std::string safe(text);
  for (std::size_t i = 0; i < safe.size(); ++i) {
    // 0xC2 0x80..0x9F are the control characters above ASCII; terminals may obey them too.
    const bool highControl =
        safe[i] == '\xC2' && i + 1 < safe.size() && static_cast<unsigned char>(safe[i + 1]) < 0xA0;
    if (highControl) safe.replace(i, 2, "?");
    if (isControl(safe[i])) safe[i] = '?';
  }
  return safe;
}

std::string displayUrl(std::string_view url) {
  std::string shown(url);
  const Authority authority = findAuthority(url);
  if (authority.begin != std::string_view::npos) {
    const std::size_t at = url.substr(0, authority.end).rfind('@');
    if (at != std::string_view::npos && at >= authority.begin) {
      shown.erase(authority.begin, at + 1 - authority.begin);
    }
  }
  return printable(shown);
}

void requireHttpUrl(std::string_view url) {
  const Authority authority = findAuthority(url);
  std::string scheme;
  if (authority.begin != std::string_view::npos) {
    for (const char c : url.substr(0, authority.begin - 3)) {
      scheme += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    }
  }
  if (scheme != "http" && scheme != "https") {
    throw UsageError("'" + displayUrl(url) + "' is not a URL that starts with http:// or https://");
  }
  const std::size_t at = url.substr(0, authority.end).rfind('@');
  const std::size_t host =
      at != std::string_view::npos && at >= authority.begin ? at + 1 : authority.begin;
  if (host >= authority.end || url[host] == ':') {
    throw UsageError("'" + displayUrl(url) + "' names no host");
  }
  if (std::any_of(url.begin(), url.end(), [](char c) { return isControl(c) || c == ' '; })) {
    throw UsageError("'" + displayUrl(url) +
                     "' holds a space or control character; write a space as %20");
  }
}

std::string fileNameFromUrl(std::string_view url) {
  const Authority authority = findAuthority(url);
  std::string_view path = authority.end == std::string_view::npos ? url : url.substr(authority.end);
  path = path.substr(0, path.find_first_of("?#"));
  const std::size_t slash = path.rfind('/');
  if (slash != std::string_view::npos) path.remove_prefix(slash + 1);
  std::string name = percentDecoded(path);
  if (name.empty()) return "index.html";
  constexpr std::size_t kLongestName = 240;  // leaves room for the suffix of a partial file
  const char* reason = nullptr;
  if (name == "." || name == "..") {
    reason = "is a folder";
  } else if (name.find('/') != std::string::npos || name.find('\\') != std::string::npos) {
    reason = "holds a path separator";
  } else if (std::any_of(name.begin(), name.end(), isControl)) {
    reason = "holds a control character";
  } else if (name.size() > kLongestName) {
    reason = "is too long";
  }
  if (reason != nullptr) {
    throw Failure(ExitCode::kFile,
                  "the file name in the URL " + std::string(reason) + ": " + displayUrl(url),
                  "Choose a name with -o FILE.");
  }
  return name;
}

}  // namespace kovo::cli
