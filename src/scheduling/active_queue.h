#pragma once

#include <boost/noncopyable.hpp>
#include <cstddef>
#include <cstdint>
#include <list>
#include <memory>
#include <vector>

#include "core/work_provider.h"
#include "scheduling/priority_queue.h"

namespace kovo {

// The admitted providers; the policy says how they share the workers and when a waiting one is
// admitted. Not thread-safe: the scheduler's provider lock is held around every call.
class ActiveQueue : boost::noncopyable {
 public:
  explicit ActiveQueue(std::uint32_t maxActive) : _maxActive(maxActive) {}
  virtual ~ActiveQueue() = default;
  virtual bool remove(const std::shared_ptr<WorkProvider>& provider);
  virtual std::shared_ptr<WorkProvider> find(std::uint32_t token);
  // The provider a free worker should serve next; null when none has work and none can be admitted.
  virtual std::shared_ptr<WorkProvider> getNextWorkProvider(PriorityQueue& waiting) = 0;
  // Appends the admitted providers in list order.
  virtual void collect(std::vector<std::shared_ptr<WorkProvider>>& providers);
  // The work the admitted providers have now; counting stops at enough.
  virtual std::uint32_t getAvailableWorkCount(std::uint32_t enough);
  // How many more providers could be admitted.
  virtual std::size_t getFreePlaces();
  virtual std::size_t size() { return _providers.size(); }
  virtual bool isEmpty() { return _providers.empty(); }

 protected:
  using Providers = std::list<std::shared_ptr<WorkProvider>>;

  Providers _providers;
  const std::uint32_t _maxActive;
};

}  // namespace kovo
