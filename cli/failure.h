#pragma once

#include <stdexcept>
#include <string>
#include <utility>

#include "exit_code.h"

namespace kovo::cli {

// Ends a command: what failed, and what the user can do about it.
class Failure : public std::runtime_error {
 public:
  Failure(ExitCode failureCode, const std::string& what, std::string failureAdvice = {})
      : std::runtime_error(what), code(failureCode), advice(std::move(failureAdvice)) {}

  ExitCode code;
  std::string advice;
};

}  // namespace kovo::cli
