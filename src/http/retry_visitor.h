#pragma once

#include <cstdint>

#include "http/retry_params.h"

namespace kovo {

class WKovoRequest;

// Makes one attempt of a request, and decides from a response's status whether the request makes
// another one by itself.
class RetryVisitor {
 public:
  virtual ~RetryVisitor() = default;
  virtual void visit(WKovoRequest& request) = 0;

  // Sets retry and its companions; false: the response is no success and is not repeated.
  static bool shouldProceed(RetryParams& params, WKovoRequest& request, std::uint32_t status);
};

}  // namespace kovo
