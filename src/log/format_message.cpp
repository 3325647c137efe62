#include "log/format_message.h"

#include <cstddef>
#include <cstdio>

namespace kovo {

std::string formatMessage(const char* format, std::va_list arguments) {
  std::va_list again;
  va_copy(again, arguments);
  std::string text(256, '\0');
  const int length = std::vsnprintf(text.data(), text.size() + 1, format, arguments);
  if (length > 0 && static_cast<std::size_t>(length) > text.size()) {
    text.resize(static_cast<std::size_t>(length));
    std::vsnprintf(text.data(), text.size() + 1, format, again);
  }
  va_end(again);
  if (length < 0) {
    return "Invalid format string; snprintf returned negative with format string: " +
           std::string(format) + "\r\n";
  }
  text.resize(static_cast<std::size_t>(length));
  return text;
}

}  // namespace kovo
