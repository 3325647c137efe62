#include "json_text.h"

#include <algorithm>
#include <array>
#include <charconv>

#include "safe_text.h"
#include "secrets.h"

namespace kovo::cli {

std::string jsonString(std::string_view text) {
  std::string quoted = "\"";
  const std::string safe = withoutSecrets(std::string(text));
  for (std::size_t begin = 0; begin <= safe.size();) {
    const std::size_t end = std::min(safe.find('\n', begin), safe.size());
    if (begin != 0) quoted += "\\n";
    for (const char c : printable(std::string_view(safe).substr(begin, end - begin))) {
      if (c == '"' || c == '\\') quoted += '\\';
      if (c == '<') {
        quoted += "\\u003c";
      } else {
        quoted += c;
      }
    }
    begin = end + 1;
  }
  return quoted + '"';
}

std::string jsonReal(double number) {
  std::array<char, 64> text{};
  const auto end =
      std::to_chars(text.data(), text.data() + text.size(), number, std::chars_format::fixed, 3);
  return end.ec == std::errc() ? std::string(text.data(), end.ptr) : "0";
}

JsonObject& JsonObject::addReal(std::string_view name, double number) {
  return addRaw(name, jsonReal(number));
}

JsonObject& JsonObject::addRaw(std::string_view name, std::string_view json) {
  if (!_members.empty()) _members += ",";
  _members.append("\"").append(name).append("\":").append(json);
  return *this;
}

}  // namespace kovo::cli
