#include "url_text.h"

#include <algorithm>
#include <cctype>

#include "safe_text.h"
#include "secrets.h"
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

// Cuts "a=1&b=2#c=3" into its parameters: the visitor gets the bounds of each value.
void forEachParameter(std::string_view url,
                      const std::function<void(std::string_view name, std::size_t valueBegin,
                                               std::size_t valueEnd)>& visit) {
  std::size_t begin = url.find_first_of("?#");
  while (begin != std::string_view::npos) {
    ++begin;
    const std::size_t end = std::min(url.find_first_of("&;#", begin), url.size());
    const std::size_t equals = url.find('=', begin);
    if (equals < end) visit(url.substr(begin, equals - begin), equals + 1, end);
    begin = end == url.size() ? std::string_view::npos : end;
  }
}

// The bounds of "user:password" in the URL; an empty text without one.
std::string_view userInfo(std::string_view url) {
  const Authority authority = findAuthority(url);
  if (authority.begin == std::string_view::npos) return {};
  const std::size_t at = url.substr(0, authority.end).rfind('@');
  if (at == std::string_view::npos || at < authority.begin) return {};
  return url.substr(authority.begin, at - authority.begin);
}

}  // namespace

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

void forEachSecretOf(std::string_view url,
                     const std::function<void(std::string_view, bool isParameter)>& visit) {
  const std::string_view user = userInfo(url);
  if (!user.empty()) {
    visit(user, false);
    const std::size_t colon = user.find(':');
    if (colon != std::string_view::npos) visit(user.substr(colon + 1), false);
  }
  forEachParameter(url, [&](std::string_view name, std::size_t begin, std::size_t end) {
    if (isSecretParameter(name)) visit(url.substr(begin, end - begin), true);
  });
}

std::string displayUrl(std::string_view url) {
  std::string shown;
  std::size_t copied = 0;
  const Authority authority = findAuthority(url);
  const std::size_t user = userInfo(url).size();
  if (user != 0) {
    shown.append(url.substr(0, authority.begin));
    copied = authority.begin + user + 1;
  }
  forEachParameter(url, [&](std::string_view name, std::size_t begin, std::size_t end) {
    if (!isSecretParameter(name) || begin < copied) return;
    shown.append(url.substr(copied, begin - copied)).append("***");
    copied = end;
  });
  return printable(shown.append(url.substr(copied)));
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

std::string lastPathSegment(std::string_view url) {
  const Authority authority = findAuthority(url);
  std::string_view path = authority.end == std::string_view::npos ? url : url.substr(authority.end);
  path = path.substr(0, path.find_first_of("?#"));
  const std::size_t slash = path.rfind('/');
  if (slash != std::string_view::npos) path.remove_prefix(slash + 1);
  return percentDecoded(path);
}

}  // namespace kovo::cli
