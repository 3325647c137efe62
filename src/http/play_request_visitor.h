#pragma once

#include "http/retry_visitor.h"

namespace kovo {

// Starts the request's operation.
class PlayRequestVisitor : public RetryVisitor {
 public:
  void visit(WKovoRequest& request) override;
};

}  // namespace kovo
