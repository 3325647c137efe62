#include "scheduling/user_policy_active_queue.h"

namespace kovo {

std::shared_ptr<WorkProvider> UserPolicyActiveQueue::getNextWorkProvider(PriorityQueue& waiting) {
  for (const auto& provider : _providers) {
    if (provider->getAvailableWorkCount() != 0) {
      return provider;
    }
  }
  if (getFreePlaces() == 0) {
    return nullptr;
  }
  std::shared_ptr<WorkProvider> admitted = waiting.pop();
  if (admitted) {
    _providers.push_back(admitted);
  }
  return admitted;
}

}  // namespace kovo
