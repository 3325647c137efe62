#pragma once

#include "core/kovo_settings.h"
#include "scheduling/active_queue.h"
#include "scheduling/priority_queue.h"
#include "scheduling/work_queue.h"

namespace kovo {

class WorkQueueImpl : public WorkQueue {
 public:
  WorkQueueImpl(std::unique_ptr<PriorityQueue> waiting, std::unique_ptr<ActiveQueue> active);
  void add(std::shared_ptr<WorkProvider> provider) override;
  bool remove(const std::shared_ptr<WorkProvider>& provider) override;
  std::shared_ptr<WorkProvider> find(std::uint32_t token) override;
  std::shared_ptr<WorkProvider> getNextWorkProvider() override;
  std::size_t getWorkProviderCount() override;
  bool isEmpty() override;
  std::uint32_t getAvailableWorkCount(std::uint32_t enough) override;
  void collect(std::vector<std::shared_ptr<WorkProvider>>& providers) override;

 private:
  // Destroyed in reverse order: the active queue goes first.
  const std::unique_ptr<PriorityQueue> _waiting;
  const std::unique_ptr<ActiveQueue> _active;
};

// An empty queue of the configured policy; null for a policy that does not exist.
std::unique_ptr<WorkQueue> createActiveQueue(const KovoSettings& settings);

}  // namespace kovo
