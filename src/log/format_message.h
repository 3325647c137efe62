#pragma once

#include <cstdarg>
#include <string>

namespace kovo {

// The message, without a limit of its length; a text that says so when it cannot be formatted.
std::string formatMessage(const char* format, std::va_list arguments)
    __attribute__((format(printf, 1, 0)));

}  // namespace kovo
