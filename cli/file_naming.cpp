#include "file_naming.h"

#include <strings.h>

#include <algorithm>

#include "failure.h"
#include "safe_text.h"
#include "url_text.h"

namespace kovo::cli {

namespace {

constexpr std::size_t kLongestName = 240;  // leaves room for the suffix of a partial file
constexpr std::string_view kPartialSuffix = "._kstmp";

// What is stored must never look like a partial file that a later run would go on with.
std::string harmless(std::string name) {
  for (std::size_t i = 0; i < name.size() && name[i] == '.'; ++i) name[i] = '_';
  if (name.size() >= kPartialSuffix.size() &&
      name.compare(name.size() - kPartialSuffix.size(), std::string::npos, kPartialSuffix) == 0) {
    name += '_';
  }
  return name;
}

bool equalsIgnoringCase(std::string_view a, std::string_view b) {
  return a.size() == b.size() && ::strncasecmp(a.data(), b.data(), a.size()) == 0;
}

std::string_view trimmed(std::string_view text) {
  const std::size_t begin = text.find_first_not_of(" \t");
  if (begin == std::string_view::npos) return {};
  return text.substr(begin, text.find_last_not_of(" \t") - begin + 1);
}

// Takes the value at the front of rest, quoted or not, and the ';' after it.
std::string takeValue(std::string_view& rest) {
  rest = rest.substr(std::min(rest.find_first_not_of(" \t"), rest.size()));
  std::string value;
  if (!rest.empty() && rest.front() == '"') {
    std::size_t at = 1;
    for (; at < rest.size() && rest[at] != '"'; ++at) {
      if (rest[at] == '\\' && at + 1 < rest.size()) ++at;
      value += rest[at];
    }
    rest.remove_prefix(std::min(at + 1, rest.size()));
  } else {
    value = trimmed(rest.substr(0, rest.find(';')));
  }
  const std::size_t semicolon = rest.find(';');
  rest = semicolon == std::string_view::npos ? std::string_view() : rest.substr(semicolon + 1);
  return value;
}

// "UTF-8''na%C3%AFve.txt" decoded; empty for another character set.
std::string decodeExtended(std::string_view value) {
  const std::size_t first = value.find('\'');
  const std::size_t second = first == std::string_view::npos ? first : value.find('\'', first + 1);
  if (second == std::string_view::npos) return {};
  const std::string_view charset = value.substr(0, first);
  if (!equalsIgnoringCase(charset, "UTF-8") && !equalsIgnoringCase(charset, "US-ASCII")) return {};
  return percentDecoded(value.substr(second + 1));
}

}  // namespace

std::string fileNameFromUrl(std::string_view url) {
  const std::string name = lastPathSegment(url);
  if (name.empty()) return "index.html";
  const char* reason = nullptr;
  if (name == "." || name == "..") {
    reason = "is a folder";
  } else if (name.find('/') != std::string::npos || name.find('\\') != std::string::npos) {
    reason = "holds a path separator";
  } else if (holdsControls(name)) {
    reason = "holds a control character, or is no UTF-8";
  } else if (name.size() > kLongestName) {
    reason = "is too long";
  }
  if (reason != nullptr) {
    throw Failure(ExitCode::kFile,
                  "the file name in the URL " + std::string(reason) + ": " + displayUrl(url),
                  "Choose a name with -o FILE.");
  }
  return harmless(name);
}

std::string fileNameFromDisposition(std::string_view header) {
  std::string plain;
  std::string extended;
  std::string_view rest = header;
  takeValue(rest);  // "attachment" or "inline"
  while (!rest.empty()) {
    const std::size_t equals = rest.find('=');
    if (equals == std::string_view::npos) break;
    const std::string_view parameter = trimmed(rest.substr(0, equals));
    rest.remove_prefix(equals + 1);
    const std::string value = takeValue(rest);
    if (equalsIgnoringCase(parameter, "filename*")) extended = decodeExtended(value);
    if (equalsIgnoringCase(parameter, "filename")) plain = value;
  }
  std::string name = extended.empty() ? plain : extended;
  name.erase(0, name.find_last_of("/\\") + 1);  // npos + 1 is 0
  name = withoutControls(name, '_');
  if (name.empty() || name == "." || name == ".." || name.size() > kLongestName) return {};
  return harmless(name);
}

}  // namespace kovo::cli
