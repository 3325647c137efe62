#pragma once

#include "scheduling/active_queue.h"

namespace kovo {

// The admitted providers in rotation, one unit each in turn; when a full pass finds no work, as
// many waiting ones as there are free places are admitted, one per call.
class BulkPolicyActiveQueue : public ActiveQueue {
 public:
  explicit BulkPolicyActiveQueue(std::uint32_t maxActive)
      : ActiveQueue(maxActive), _current(_providers.end()) {}
  bool remove(const std::shared_ptr<WorkProvider>& provider) override;
  std::shared_ptr<WorkProvider> getNextWorkProvider(PriorityQueue& waiting) override;

 private:
  // The first provider with work in [from, to), the cursor moved behind it; null if there is none.
  std::shared_ptr<WorkProvider> serve(Providers::iterator from, Providers::iterator to);

  // Waiting providers still to be admitted in the present batch.
  std::size_t _numToAdd = 0;
  Providers::iterator _current;
};

}  // namespace kovo
