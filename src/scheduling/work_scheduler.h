#pragma once

#include <kovo/kovo.h>

#include <boost/noncopyable.hpp>
#include <cstdint>
#include <memory>

#include "core/work.h"
#include "core/work_provider.h"

namespace kovo {

// Holds the submitted providers and drives the worker runs that serve them.
class WorkScheduler : boost::noncopyable {
 public:
  // As shutDown, if that has not been called.
  virtual ~WorkScheduler() = default;
  // Ends every queued and running provider through its own final callback, without waiting for the
  // network; paused ones are released. When it returns, no library thread touches a provider or
  // this object any more. The other operations may be called meanwhile, also from those callbacks.
  // Not from a library thread.
  virtual void shutDown() = 0;
  // The provider's token; 0 when shutting down.
  virtual std::uint32_t submit(std::shared_ptr<WorkProvider> provider) = 0;
  // The provider's answer. A provider with nothing running is wound down at once, even when every
  // worker is busy.
  virtual kovo_error cancel(std::shared_ptr<WorkProvider> provider) = 0;
  // 0 (also when it was paused already); 5 for a cancelled provider or when shutting down; 4 when
  // the provider is neither queued nor paused (it has just ended).
  virtual kovo_error pause(std::shared_ptr<WorkProvider> provider, bool restartWhenDrained) = 0;
  // The provider's token; 0 when it is not held or when shutting down. While the pause still drains
  // the provider stays among the paused ones and is queued again once it has.
  virtual std::uint32_t resume(std::shared_ptr<WorkProvider> provider) = 0;
  // Null when there is nothing to run now.
  virtual Work* getWork() = 0;
  // Gives the unit back, then makes the provider's due client callbacks. False: the worker ends,
  // and is not counted any more.
  virtual bool onFinish(Work* work) = 0;
  virtual std::shared_ptr<WorkProvider> findWorkProvider(std::uint32_t token) = 0;
  virtual std::shared_ptr<WorkProvider> findPausedWorkProvider(std::uint32_t token) = 0;
  // The watchdog: providers, but no worker, get one.
  virtual void onTimerCallback() = 0;
  // One worker run: takes, runs and gives back work until there is none.
  virtual void workerCallback() = 0;
  // Whether the calling thread belongs to any engine of this process.
  static bool isLibraryThread();
};

}  // namespace kovo
