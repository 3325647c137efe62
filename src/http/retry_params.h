#pragma once

#include <cstdint>

namespace kovo {

// How far a request has come with repeating itself.
class RetryParams {
 public:
  virtual ~RetryParams() = default;

  // How many counted retries a request makes.
  static constexpr std::int32_t kLimit = 1;

  std::int32_t attempts = 0;
  bool retry = false;
  bool proxyRetry = false;
  bool proxyAuthRetry = false;
};

}  // namespace kovo
