#pragma once

#include <boost/noncopyable.hpp>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "core/work_provider.h"

namespace kovo {

// The providers that wait for admission. Not thread-safe: the scheduler's provider lock is held
// around every call.
class PriorityQueue : boost::noncopyable {
 public:
  virtual ~PriorityQueue() = default;
  // Refuses (leaving the queue as it is) null, a token already held, and a provider without work.
  virtual void add(std::shared_ptr<WorkProvider> provider) = 0;
  virtual bool remove(const std::shared_ptr<WorkProvider>& provider) = 0;
  virtual std::shared_ptr<WorkProvider> find(std::uint32_t token) = 0;
  // Takes out the provider of the greatest priority, the earliest among equals; null when empty.
  virtual std::shared_ptr<WorkProvider> pop() = 0;
  // Appends the held providers in priority order.
  virtual void collect(std::vector<std::shared_ptr<WorkProvider>>& providers) = 0;
  // The work of the first `places` providers, at least one unit each; counting stops at enough.
  virtual std::uint32_t getAvailableWorkCount(std::size_t places, std::uint32_t enough) = 0;
  virtual std::size_t size() = 0;
  virtual bool isEmpty() = 0;
};

}  // namespace kovo
