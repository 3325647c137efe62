#include "safe_text.h"

#include <cstdint>

namespace kovo::cli {

namespace {

// One character of UTF-8: how many bytes it takes, and its number; 0 bytes for what is none.
struct Decoded {
  std::size_t bytes;
  std::uint32_t character;
};

Decoded decode(std::string_view text) {
  const auto byte = [&](std::size_t at) { return static_cast<unsigned char>(text[at]); };
  const unsigned char first = byte(0);
  if (first < 0x80) return {1, first};
  const std::size_t length = first >= 0xF0 ? 4 : first >= 0xE0 ? 3 : 2;
  if (first < 0xC2 || first > 0xF4 || text.size() < length) return {0, 0};
  std::uint32_t character = first & (0x7FU >> length);
  for (std::size_t i = 1; i < length; ++i) {
    if ((byte(i) & 0xC0) != 0x80) return {0, 0};
    character = character << 6 | (byte(i) & 0x3FU);
  }
  constexpr std::uint32_t kLeast[] = {0, 0, 0x80, 0x800, 0x10000};
  const bool isSurrogate = character >= 0xD800 && character <= 0xDFFF;
  if (character < kLeast[length] || character > 0x10FFFF || isSurrogate) return {0, 0};
  return {length, character};
}

bool disturbs(std::uint32_t character) {
  return character < 0x20 || (character >= 0x7F && character < 0xA0) ||
         character == 0x061C ||                           // Arabic letter mark
         (character >= 0x200E && character <= 0x200F) ||  // left-to-right, right-to-left mark
         (character >= 0x2028 && character <= 0x202E) ||  // separators, embeddings, overrides
         (character >= 0x2066 && character <= 0x2069) ||  // isolates
         character == 0xFEFF;
}

}  // namespace

std::string withoutControls(std::string_view text, char replacement) {
  std::string safe;
  safe.reserve(text.size());
  while (!text.empty()) {
    const Decoded next = decode(text);
    if (next.bytes == 0 || disturbs(next.character)) {
      safe += replacement;
    } else {
      safe.append(text.substr(0, next.bytes));
    }
    text.remove_prefix(next.bytes == 0 ? 1 : next.bytes);
  }
  return safe;
}

std::string printable(std::string_view text) {
  return withoutControls(text, '?');
}

bool holdsControls(std::string_view text) {
  return printable(text) != text;
}

}  // namespace kovo::cli
