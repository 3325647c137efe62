#pragma once

#include "scheduling/active_queue.h"

namespace kovo {

// Earlier-admitted providers first: a provider keeps the workers until it runs out of work, and a
// waiting one is admitted only when no admitted one has any.
class UserPolicyActiveQueue : public ActiveQueue {
 public:
  using ActiveQueue::ActiveQueue;
  std::shared_ptr<WorkProvider> getNextWorkProvider(PriorityQueue& waiting) override;
};

}  // namespace kovo
