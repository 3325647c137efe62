#pragma once

#include <charconv>
#include <cstdint>
#include <stdexcept>
#include <string>

namespace kovo {

// An unsigned decimal number, blanks around it allowed. Throws std::invalid_argument or
// std::out_of_range with the texts clients know from the conversion functions of the library.
inline std::uint64_t parseDecimal(const std::string& text) {
  const std::size_t begin = text.find_first_not_of(" \t");
  const std::size_t end = text.find_last_not_of(" \t");
  std::uint64_t value = 0;
  if (begin == std::string::npos) {
    throw std::invalid_argument("invalid stoull argument");
  }
  const char* last = text.data() + end + 1;
  const auto [position, error] = std::from_chars(text.data() + begin, last, value);
  if (error == std::errc::result_out_of_range) {
    throw std::out_of_range("stoull argument out of range");
  }
  if (error != std::errc() || position != last) {
    throw std::invalid_argument("invalid stoull argument");
  }
  return value;
}

}  // namespace kovo
