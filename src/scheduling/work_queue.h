#pragma once

#include <boost/noncopyable.hpp>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "core/work_provider.h"

namespace kovo {

// Submitted providers, waiting and admitted. Not thread-safe: the scheduler's provider lock is held
// around every call.
class WorkQueue : boost::noncopyable {
 public:
  virtual ~WorkQueue() = default;
  // A provider without work, or whose token is already held, is refused.
  virtual void add(std::shared_ptr<WorkProvider> provider) = 0;
  virtual bool remove(const std::shared_ptr<WorkProvider>& provider) = 0;
  // Null if absent.
  virtual std::shared_ptr<WorkProvider> find(std::uint32_t token) = 0;
  // Null if none has work that may be handed out now.
  virtual std::shared_ptr<WorkProvider> getNextWorkProvider() = 0;
  virtual std::size_t getWorkProviderCount() = 0;
  virtual bool isEmpty() = 0;
  // Units that workers could take now, from admitted providers and from those there is room to
  // admit; counting stops at enough. Not 0 whenever getNextWorkProvider would return a provider.
  virtual std::uint32_t getAvailableWorkCount(std::uint32_t enough) = 0;
  // Appends every provider held.
  virtual void collect(std::vector<std::shared_ptr<WorkProvider>>& providers) = 0;
};

}  // namespace kovo
