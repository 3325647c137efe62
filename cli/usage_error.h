#pragma once

#include <stdexcept>

namespace kovo::cli {

// The command line cannot be understood; what() says where.
class UsageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

}  // namespace kovo::cli
