#include "http/query_url.h"

#include <cstring>

namespace kovo {

std::string appendQuery(const std::string& url, const std::string& parameters) {
  std::string result = url.substr(0, url.find('#'));
  if (result.find('?') == std::string::npos) {
    result += '?';
  } else if (result.back() != '?' && result.back() != '&') {
    result += '&';
  }
  return result + parameters;
}

std::string encodeQueryValue(const std::string& value) {
  static constexpr char kHex[] = "0123456789ABCDEF";
  std::string result;
  result.reserve(value.size());
  for (const char character : value) {
    const auto byte = static_cast<unsigned char>(character);
    const bool isAlphanumeric = (byte >= '0' && byte <= '9') || (byte >= 'a' && byte <= 'z') ||
                                (byte >= 'A' && byte <= 'Z');
    if (isAlphanumeric || (byte != 0 && std::strchr("-._~/=:@!$'()*,;", byte) != nullptr)) {
      result += character;
    } else {
      result += '%';
      result += kHex[byte >> 4];
      result += kHex[byte & 0xF];
    }
  }
  return result;
}

}  // namespace kovo
