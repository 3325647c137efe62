#include "scheduling/priority_queue_impl.h"

#include <algorithm>

#include "core/assertion.h"

namespace kovo {

void PriorityQueueImpl::add(std::shared_ptr<WorkProvider> provider) {
  if (!provider) {
    KOVO_ASSERT(false, "PriorityQueueImpl: Adding NULL WorkProvider");
    return;
  }
  if (_providers.get<ByToken>().count(provider->getToken()) != 0) {
    KOVO_ASSERT(false, "We already have a provider with this token!");
    return;
  }
  if (provider->getAvailableWorkCount() == 0) {
    KOVO_ASSERT(false, "Trying to add a provider with zero work!");
    return;
  }
  _providers.insert(std::move(provider));
}

bool PriorityQueueImpl::remove(const std::shared_ptr<WorkProvider>& provider) {
  if (!provider) {
    KOVO_ASSERT(false, "Was asked to remove a NULL work provider!");
    return false;
  }
  const std::size_t erased = _providers.get<ByToken>().erase(provider->getToken());
  KOVO_ASSERT(erased != 0, "Item wasn't in the queue!");
  KOVO_ASSERT(erased <= 1, "Item with this token in the queue several times!");
  return erased == 1;
}

std::shared_ptr<WorkProvider> PriorityQueueImpl::find(std::uint32_t token) {
  const auto& index = _providers.get<ByToken>();
  const auto position = index.find(token);
  return position == index.end() ? nullptr : *position;
}

std::shared_ptr<WorkProvider> PriorityQueueImpl::pop() {
  auto& index = _providers.get<ByPriority>();
  if (index.empty()) {
    return nullptr;
  }
  std::shared_ptr<WorkProvider> first = *index.begin();
  KOVO_ASSERT(first != nullptr, "Why was there a null provider in the queue?");
  index.erase(index.begin());
  return first;
}

void PriorityQueueImpl::collect(std::vector<std::shared_ptr<WorkProvider>>& providers) {
  const auto& index = _providers.get<ByPriority>();
  providers.insert(providers.end(), index.begin(), index.end());
}

std::uint32_t PriorityQueueImpl::getAvailableWorkCount(std::size_t places, std::uint32_t enough) {
  // Asked afresh of the few providers that could be admitted: a running total would drift from the
  // truth as counts change while providers wait, and thousands of waiting providers cannot all be
  // asked.
  std::uint32_t count = 0;
  for (const auto& provider : _providers.get<ByPriority>()) {
    if (places == 0 || count >= enough) {
      break;
    }
    --places;
    const std::uint32_t units = std::max<std::uint32_t>(provider->getAvailableWorkCount(), 1);
    count += std::min(units, enough - count);
  }
  return count;
}

}  // namespace kovo
