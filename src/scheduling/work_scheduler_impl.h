#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <map>
#include <memory>
#include <vector>

#include "callbacks/callback_table.h"
#include "core/kovo_settings.h"
#include "core/lock.h"
#include "platform/hardware.h"
#include "scheduling/control_thread.h"
#include "scheduling/kovo_strategy.h"
#include "scheduling/thread_pool.h"
#include "scheduling/work_queue.h"
#include "scheduling/work_scheduler.h"

namespace kovo {

// Locks, in the order in which they may be taken: _workLock, then a provider's main lock or
// _providerLock, then the strategy's, the control thread's, the pool's and a provider's state
// locks. The control operations (submit, cancel, pause, resume, find) never take _workLock, so they
// do not wait for a provider that a worker is just advancing. Client code runs with neither held.
class WorkSchedulerImpl : public WorkScheduler {
 public:
  // All references outlive the scheduler.
  WorkSchedulerImpl(KOVOStrategy& strategy, const KovoSettings& settings,
                    const CallbackTable& callbacks,
                    std::uint32_t hardwareFigure = hardwareConcurrency());
  ~WorkSchedulerImpl() override;
  void shutDown() override;
  std::uint32_t submit(std::shared_ptr<WorkProvider> provider) override;
  kovo_error cancel(std::shared_ptr<WorkProvider> provider) override;
  kovo_error pause(std::shared_ptr<WorkProvider> provider, bool restartWhenDrained) override;
  std::uint32_t resume(std::shared_ptr<WorkProvider> provider) override;
  Work* getWork() override;
  bool onFinish(Work* work) override;
  std::shared_ptr<WorkProvider> findWorkProvider(std::uint32_t token) override;
  std::shared_ptr<WorkProvider> findPausedWorkProvider(std::uint32_t token) override;
  void onTimerCallback() override;
  void workerCallback() override;

 protected:
  bool isRunning() KOVO_REQUIRES(_providerLock);
  std::uint32_t doSubmit(std::shared_ptr<WorkProvider> provider) KOVO_REQUIRES(_providerLock);
  void removeWorkProvider(const std::shared_ptr<WorkProvider>& provider)
      KOVO_REQUIRES(_providerLock);
  void monitorWorkStarted(const std::shared_ptr<WorkProvider>& provider);
  void startWorkerIfBelowLimit() KOVO_REQUIRES(_providerLock);
  void adjustWorkerCountOnStart() KOVO_REQUIRES(_providerLock);
  bool adjustWorkerCountOnFinish(bool timedOut) KOVO_REQUIRES(_providerLock);
  std::shared_ptr<WorkProvider> getNextWorkProvider() KOVO_REQUIRES(_workLock);
  std::size_t getWorkProviderCount() KOVO_REQUIRES(_providerLock);
  std::uint32_t nextAsyncToken() KOVO_REQUIRES(_providerLock);
  WorkQueue& selectQueue(const WorkProvider& provider) KOVO_REQUIRES(_providerLock);
  std::shared_ptr<WorkProvider> findQueuedWorkProvider(std::uint32_t token)
      KOVO_REQUIRES(_providerLock);
  void removeQueuedWorkProvider(const std::shared_ptr<WorkProvider>& provider)
      KOVO_REQUIRES(_providerLock);
  std::shared_ptr<WorkProvider> findPausedWorkProviderUnlocked(std::uint32_t token)
      KOVO_REQUIRES(_providerLock);
  // Units that workers could take now; counting stops at enough.
  std::uint32_t getAvailableWorkCount(std::uint32_t enough) KOVO_REQUIRES(_providerLock);

  void incrementWorkerCount();
  void decrementWorkerCount();

  RecursiveLock _workLock;
  RecursiveLock _providerLock;
  std::atomic<std::uint32_t> _workerCount{0};
  std::uint32_t _lastToken KOVO_GUARDED_BY(_providerLock) = 0;

 private:
  struct PausedProvider {
    std::shared_ptr<WorkProvider> provider;
    // Its pause is complete: a resume may queue it at once.
    bool drained;
  };

  // The worker count the strategy allows now.
  std::uint32_t effectiveWorkerLimit() KOVO_REQUIRES(_providerLock);
  void startWorkers(const char* function, std::uint32_t current, std::uint32_t effective)
      KOVO_REQUIRES(_providerLock);
  // The entry that holds this very provider; null if there is none.
  PausedProvider* findPaused(const std::shared_ptr<WorkProvider>& provider)
      KOVO_REQUIRES(_providerLock);
  bool isHeld(const std::shared_ptr<WorkProvider>& provider) KOVO_REQUIRES(_providerLock);
  // A place in a queue is free: what waits there may have become runnable.
  void onPlaceFreed() KOVO_REQUIRES(_providerLock);
  // The provider reported that it is finished or that its pause has drained.
  void settle(const std::shared_ptr<WorkProvider>& provider) KOVO_REQUIRES(_workLock);
  void attend(const std::shared_ptr<WorkProvider>& provider);
  bool tick();
  // Ends a cancelled provider that has nothing running; false when it did not end.
  bool windDown(const std::shared_ptr<WorkProvider>& provider) KOVO_REQUIRES(_workLock);
  // Ends the calling worker run unless something has happened since it began to look for work.
  bool endWorkerUnlessNews(std::uint64_t eventsSeen);
  // What shutting down has to end: everything queued, and every paused provider that still runs,
  // would run again, or is to be told of its cancellation.
  std::vector<std::shared_ptr<WorkProvider>> collectUnended();
  void endAll(const std::vector<std::shared_ptr<WorkProvider>>& providers);

  KOVOStrategy& _strategy;
  const KovoSettings& _settings;
  const CallbackTable& _callbacks;
  // Counts what may have made work available. Changed under _providerLock, so that a worker which
  // found nothing can tell, before it lowers the worker count, that it would miss nothing.
  std::atomic<std::uint64_t> _events{0};
  bool _shuttingDown KOVO_GUARDED_BY(_providerLock) = false;
  bool _tokensWrapped KOVO_GUARDED_BY(_providerLock) = false;
  // 0: serial providers, 1: chunked ones.
  std::array<std::unique_ptr<WorkQueue>, 2> _queues KOVO_GUARDED_BY(_providerLock);
  std::size_t _nextQueue KOVO_GUARDED_BY(_providerLock) = 0;
  std::map<std::uint32_t, PausedProvider> _pausedProviders KOVO_GUARDED_BY(_providerLock);
  // Last: their threads use everything above.
  std::unique_ptr<ThreadPool> _pool;
  ControlThread _control;
};

}  // namespace kovo
