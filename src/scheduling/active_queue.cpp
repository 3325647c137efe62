#include "scheduling/active_queue.h"

#include <algorithm>

namespace kovo {

bool ActiveQueue::remove(const std::shared_ptr<WorkProvider>& provider) {
  return std::erase(_providers, provider) != 0;
}

std::shared_ptr<WorkProvider> ActiveQueue::find(std::uint32_t token) {
  const auto position = std::find_if(
      _providers.begin(), _providers.end(),
      [token](const std::shared_ptr<WorkProvider>& held) { return held->getToken() == token; });
  return position == _providers.end() ? nullptr : *position;
}

void ActiveQueue::collect(std::vector<std::shared_ptr<WorkProvider>>& providers) {
  providers.insert(providers.end(), _providers.begin(), _providers.end());
}

std::uint32_t ActiveQueue::getAvailableWorkCount(std::uint32_t enough) {
  std::uint32_t count = 0;
  for (const auto& provider : _providers) {
    if (count >= enough) {
      break;
    }
    count += std::min(provider->getAvailableWorkCount(), enough - count);
  }
  return count;
}

std::size_t ActiveQueue::getFreePlaces() {
  return _providers.size() < _maxActive ? _maxActive - _providers.size() : 0;
}

}  // namespace kovo
