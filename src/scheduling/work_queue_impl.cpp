#include "scheduling/work_queue_impl.h"

#include <utility>

#include "core/assertion.h"
#include "scheduling/bulk_policy_active_queue.h"
#include "scheduling/priority_queue_impl.h"
#include "scheduling/user_policy_active_queue.h"

namespace kovo {

WorkQueueImpl::WorkQueueImpl(std::unique_ptr<PriorityQueue> waiting,
                             std::unique_ptr<ActiveQueue> active)
    : _waiting(std::move(waiting)), _active(std::move(active)) {}

void WorkQueueImpl::add(std::shared_ptr<WorkProvider> provider) {
  _waiting->add(std::move(provider));
}

bool WorkQueueImpl::remove(const std::shared_ptr<WorkProvider>& provider) {
  return _active->remove(provider) || _waiting->remove(provider);
}

std::shared_ptr<WorkProvider> WorkQueueImpl::find(std::uint32_t token) {
  if (std::shared_ptr<WorkProvider> admitted = _active->find(token)) {
    return admitted;
  }
  return _waiting->find(token);
}

std::shared_ptr<WorkProvider> WorkQueueImpl::getNextWorkProvider() {
  return _active->getNextWorkProvider(*_waiting);
}

std::size_t WorkQueueImpl::getWorkProviderCount() {
  return _waiting->size() + _active->size();
}

bool WorkQueueImpl::isEmpty() {
  return _waiting->isEmpty() && _active->isEmpty();
}

std::uint32_t WorkQueueImpl::getAvailableWorkCount(std::uint32_t enough) {
  // Waiting providers that no place is free for do not count: workers started for them would find
  // nothing and end at once, at every finished unit again.
  const std::uint32_t admitted = _active->getAvailableWorkCount(enough);
  return admitted + _waiting->getAvailableWorkCount(_active->getFreePlaces(), enough - admitted);
}

void WorkQueueImpl::collect(std::vector<std::shared_ptr<WorkProvider>>& providers) {
  _active->collect(providers);
  _waiting->collect(providers);
}

std::unique_ptr<WorkQueue> createActiveQueue(const KovoSettings& settings) {
  std::unique_ptr<ActiveQueue> active;
  if (settings.workQueuePolicy == 0) {
    active = std::make_unique<UserPolicyActiveQueue>(settings.maxActiveWorkProviders);
  } else if (settings.workQueuePolicy == 1) {
    active = std::make_unique<BulkPolicyActiveQueue>(settings.maxActiveWorkProviders);
  } else {
    KOVO_ASSERT(false, "Didn't construct an active queue, new policy added?");
    return nullptr;
  }
  return std::make_unique<WorkQueueImpl>(std::make_unique<PriorityQueueImpl>(), std::move(active));
}

}  // namespace kovo
