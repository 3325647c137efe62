#include "scheduling/bulk_policy_active_queue.h"

#include <algorithm>
#include <iterator>

#include "core/assertion.h"

namespace kovo {

bool BulkPolicyActiveQueue::remove(const std::shared_ptr<WorkProvider>& provider) {
  if (_current != _providers.end() && *_current == provider) {
    ++_current;
  }
  return ActiveQueue::remove(provider);
}

std::shared_ptr<WorkProvider> BulkPolicyActiveQueue::getNextWorkProvider(PriorityQueue& waiting) {
  if (_numToAdd > 0) {
    if (std::shared_ptr<WorkProvider> admitted = waiting.pop()) {
      _providers.insert(_current, admitted);
      --_numToAdd;
      return admitted;
    }
  }
  if (std::shared_ptr<WorkProvider> served = serve(_current, _providers.end())) {
    return served;
  }
  _numToAdd = std::min(waiting.size(), getFreePlaces());
  if (_numToAdd > 0) {
    std::shared_ptr<WorkProvider> admitted = waiting.pop();
    if (!admitted) {
      KOVO_ASSERT(false, "The queue was empty, so why was _numToAdd > 0?");
      return nullptr;
    }
    _providers.push_front(admitted);
    --_numToAdd;
    _current = std::next(_providers.begin());
    return admitted;
  }
  if (std::shared_ptr<WorkProvider> served = serve(_providers.begin(), _current)) {
    return served;
  }
  _current = _providers.begin();
  return nullptr;
}

std::shared_ptr<WorkProvider> BulkPolicyActiveQueue::serve(Providers::iterator from,
                                                           Providers::iterator to) {
  const auto found = std::find_if(from, to, [](const std::shared_ptr<WorkProvider>& provider) {
    return provider->getAvailableWorkCount() != 0;
  });
  if (found == to) {
    return nullptr;
  }
  _current = std::next(found);
  return *found;
}

}  // namespace kovo
