#pragma once

#include <cstdint>
#include <string_view>

#include "exit_code.h"

namespace kovo::cli {

// Which kind of failure an error of the library is. httpStatus is 0 without an answer.
ExitCode classify(std::uint32_t code, std::uint32_t httpStatus, std::string_view message);

// Whether the message says that the host could not be found or refused the connection.
bool isUnreachable(std::string_view message);

}  // namespace kovo::cli
