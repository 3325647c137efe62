#include "upload/json_text.h"

#include <cstdio>
#include <cstring>

namespace kovo {
namespace {

// A NUL is none of any characters, though strchr finds the one that ends them.
bool isOneOf(char character, const char* characters) {
  return character != '\0' && std::strchr(characters, character) != nullptr;
}

}  // namespace

std::string escapeJson(const std::string& text) {
  std::string result;
  result.reserve(text.size());
  for (const char character : text) {
    const auto byte = static_cast<unsigned char>(character);
    if (character == '"' || character == '\\') {
      result += '\\';
      result += character;
    } else if (byte < 0x20) {
      char escape[7];
      std::snprintf(escape, sizeof escape, "\\u%04x", byte);
      result += escape;
    } else {
      result += character;
    }
  }
  return result;
}

bool isJsonString(const std::string& text) {
  if (text.size() < 2 || text.front() != '"' || text.back() != '"') {
    return false;
  }
  const std::size_t last = text.size() - 1;
  for (std::size_t position = 1; position < last; ++position) {
    const auto byte = static_cast<unsigned char>(text[position]);
    if (byte < 0x20 || byte == '"') {
      return false;
    }
    if (byte != '\\') {
      continue;
    }
    ++position;
    if (position == last) {
      return false;  // the closing quote is escaped
    }
    if (text[position] == 'u') {
      for (int digit = 0; digit < 4; ++digit) {
        ++position;
        if (position >= last || !isOneOf(text[position], "0123456789abcdefABCDEF")) {
          return false;
        }
      }
    } else if (!isOneOf(text[position], "\"\\/bfnrt")) {
      return false;
    }
  }
  return true;
}

}  // namespace kovo
