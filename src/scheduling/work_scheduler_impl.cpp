#include "scheduling/work_scheduler_impl.h"

#include <algorithm>
#include <boost/bind/bind.hpp>
#include <limits>
#include <utility>

#include "core/assertion.h"
#include "log/deferred_log.h"
#include "log/kovo_log.h"
#include "scheduling/library_thread.h"
#include "scheduling/monitor_record.h"
#include "scheduling/thread_pool_impl.h"
#include "scheduling/work_queue_impl.h"

namespace kovo {
namespace {

constexpr const char* kAdjustMessage = "Adjust Worker Count: current: %u target %u adjusted: %u";
// A provider ends within a step or two once it is cancelled; the bound guards against one that
// does not.
constexpr int kMaxWindDownSteps = 16;
// A provider may lose its work (to a pause, say) between being chosen and being asked: the search
// goes on, but does not spin on one that keeps promising.
constexpr int kMaxSearches = 4;

}  // namespace

bool WorkScheduler::isLibraryThread() {
  return LibraryThreadScope::isActive();
}

WorkSchedulerImpl::WorkSchedulerImpl(KOVOStrategy& strategy, const KovoSettings& settings,
                                     const CallbackTable& callbacks, std::uint32_t hardwareFigure)
    : _strategy(strategy),
      _settings(settings),
      _callbacks(callbacks),
      _queues{createActiveQueue(settings), createActiveQueue(settings)},
      _pool(std::make_unique<ThreadPoolImpl>(boost::bind(&WorkSchedulerImpl::workerCallback, this),
                                             boost::bind(&WorkSchedulerImpl::onTimerCallback, this),
                                             hardwareFigure)),
      _control(boost::bind(&WorkSchedulerImpl::attend, this, boost::placeholders::_1),
               boost::bind(&WorkSchedulerImpl::tick, this)) {}

WorkSchedulerImpl::~WorkSchedulerImpl() {
  WorkSchedulerImpl::shutDown();
}

// --- Control operations ------------------------------------------------------------------------

std::uint32_t WorkSchedulerImpl::submit(std::shared_ptr<WorkProvider> provider) {
  const DeferredLog log;
  const ScopedLock lock(_providerLock);
  return isRunning() ? doSubmit(std::move(provider)) : NOTHING_ASYNC_TOKEN;
}

kovo_error WorkSchedulerImpl::cancel(std::shared_ptr<WorkProvider> provider) {
  const kovo_error result = provider->cancel(false);
  if (result == KOVO_ERROR_NONE) {
    _control.attend(std::move(provider));
  }
  return result;
}

kovo_error WorkSchedulerImpl::pause(std::shared_ptr<WorkProvider> provider,
                                    bool restartWhenDrained) {
  if (provider->isCancelled()) {
    return KOVO_ERROR_CANCELLED;
  }
  {
    const DeferredLog log;
    const ScopedLock lock(_providerLock);
    if (!isRunning()) {
      return KOVO_ERROR_CANCELLED;
    }
    const PausedProvider* paused = findPaused(provider);
    if (paused != nullptr && paused->drained) {
      return KOVO_ERROR_NONE;
    }
    if (paused == nullptr && !isHeld(provider)) {
      return KOVO_ERROR_INVALID_PARAMETERS;
    }
    if (provider->pause(restartWhenDrained)) {
      removeWorkProvider(provider);
      _pausedProviders[provider->getToken()] = PausedProvider{provider, false};
      onPlaceFreed();
    }
  }
  _control.attend(std::move(provider));
  return KOVO_ERROR_NONE;
}

std::uint32_t WorkSchedulerImpl::resume(std::shared_ptr<WorkProvider> provider) {
  const DeferredLog log;
  const ScopedLock lock(_providerLock);
  if (!isRunning()) {
    return NOTHING_ASYNC_TOKEN;
  }
  const PausedProvider* paused = findPaused(provider);
  if (paused == nullptr) {
    if (isHeld(provider)) {
      return provider->getToken();
    }
    removeWorkProvider(provider);
    return NOTHING_ASYNC_TOKEN;
  }
  if (!paused->drained) {
    provider->restartOnceDrained();
    return provider->getToken();
  }
  if (provider->isCancelled()) {
    // The control thread ends it, or has just done so; either way it needs no queue.
    return provider->getToken();
  }
  // A report of this pause that has not been made yet would come while the transfer runs.
  provider->restartOnceDrained();
  removeWorkProvider(provider);
  return doSubmit(std::move(provider));
}

std::shared_ptr<WorkProvider> WorkSchedulerImpl::findWorkProvider(std::uint32_t token) {
  const ScopedLock lock(_providerLock);
  if (std::shared_ptr<WorkProvider> queued = findQueuedWorkProvider(token)) {
    return queued;
  }
  return findPausedWorkProviderUnlocked(token);
}

std::shared_ptr<WorkProvider> WorkSchedulerImpl::findPausedWorkProvider(std::uint32_t token) {
  const ScopedLock lock(_providerLock);
  return findPausedWorkProviderUnlocked(token);
}

// --- Workers -----------------------------------------------------------------------------------

void WorkSchedulerImpl::workerCallback() {
  for (;;) {
    const std::uint64_t eventsSeen = _events;
    Work* const work = getWork();
    if (work == nullptr) {
      if (endWorkerUnlessNews(eventsSeen)) {
        return;
      }
      continue;
    }
    work->run();
    if (!onFinish(work)) {
      KOVO_LOG(KOVO_LOG_INFO, "kovo::WorkSchedulerImpl::workerCallback",
               "WorkScheduler.workerCallback-out (onFinish returned false to terminate)");
      return;
    }
  }
}

Work* WorkSchedulerImpl::getWork() {
  std::shared_ptr<WorkProvider> provider;
  Work* work = nullptr;
  {
    const DeferredLog log;
    const ScopedLock workLock(_workLock);
    for (int attempt = 0; work == nullptr; ++attempt) {
      provider = attempt < kMaxSearches ? getNextWorkProvider() : nullptr;
      if (!provider) {
        return nullptr;
      }
      work = provider->getNextWork();
    }
    work->setParent(provider);
  }
  monitorWorkStarted(provider);
  return work;
}

bool WorkSchedulerImpl::onFinish(Work* work) {
  const std::shared_ptr<WorkProvider> provider = work->getParent();
  const bool timedOut = work->isTimedOut();
  if (provider) {
    const DeferredLog log;
    const ScopedLock workLock(_workLock);
    if (provider->onFinish(work)) {
      settle(provider);
    }
  } else {
    KOVO_LOG(KOVO_LOG_ERROR, "kovo::WorkSchedulerImpl::onFinish",
             "WorkSchedulerImpl.onFinish called for work with no parent provider");
    KOVO_ASSERT(false, "workProvider");
  }
  bool keepRunning = false;
  {
    const DeferredLog log;
    const ScopedLock lock(_providerLock);
    KOVO_ASSERT(_workerCount > 0, "_workerCount > 0");
    ++_events;
    keepRunning = isRunning() && adjustWorkerCountOnFinish(timedOut);
    if (!keepRunning) {
      decrementWorkerCount();
    }
  }
  if (provider) {
    provider->deliverNotifications();
  }
  return keepRunning;
}

bool WorkSchedulerImpl::endWorkerUnlessNews(std::uint64_t eventsSeen) {
  const DeferredLog log;
  const ScopedLock lock(_providerLock);
  if (isRunning() && _events != eventsSeen) {
    return false;
  }
  decrementWorkerCount();
  return true;
}

void WorkSchedulerImpl::settle(const std::shared_ptr<WorkProvider>& provider) {
  const bool finished = provider->isFinished();
  const ScopedLock lock(_providerLock);
  if (finished) {
    removeWorkProvider(provider);
    return;
  }
  PausedProvider* const paused = findPaused(provider);
  if (!isRunning() || paused == nullptr) {
    // Shutting down looks at the provider once more: one that was to run again still owes its
    // final callback.
    return;
  }
  // In one piece with the provider's place among the paused: a pause or resume finds it either
  // draining or settled.
  const bool restart = provider->shouldRestartWhenDrained();
  provider->clearPausing();
  if (restart) {
    removeWorkProvider(provider);
    doSubmit(provider);
    return;
  }
  paused->drained = true;
  if (provider->isCancelled()) {
    _control.attend(provider);
  }
}

std::shared_ptr<WorkProvider> WorkSchedulerImpl::getNextWorkProvider() {
  const ScopedLock lock(_providerLock);
  if (!isRunning()) {
    return nullptr;
  }
  for (std::size_t i = 0; i < _queues.size(); ++i) {
    const std::size_t q = (_nextQueue + i) % _queues.size();
    if (std::shared_ptr<WorkProvider> provider = _queues[q]->getNextWorkProvider()) {
      _nextQueue = (q + 1) % _queues.size();
      return provider;
    }
  }
  return nullptr;
}

void WorkSchedulerImpl::monitorWorkStarted(const std::shared_ptr<WorkProvider>& provider) {
  if (_callbacks.monitor.load() == nullptr) {
    return;
  }
  const auto send = [&](auto record, std::uint32_t kind) {
    _strategy.fillMonitorRecord(&record, sizeof(record));
    record.workerCount = _workerCount;
    {
      const ScopedLock lock(_providerLock);
      record.workProviderCount = static_cast<std::uint32_t>(getWorkProviderCount());
    }
    provider->monitor(kind, &record, sizeof(record));
  };
  const std::uint32_t kind = _strategy.getMonitorKind();
  if (kind == kMonitorKindAdaptive) {
    send(kovo_monitor_adaptive_strategy{}, kind);
  } else if (kind == kMonitorKindFixed) {
    send(kovo_monitor_fixed_threads_strategy{}, kind);
  }
}

// --- Worker count ------------------------------------------------------------------------------

std::uint32_t WorkSchedulerImpl::effectiveWorkerLimit() {
  const std::uint32_t limit = _strategy.getMaximumThreadCount();
  const std::uint32_t target = _strategy.getTargetThreadCount();
  return std::min(limit, target);
}

void WorkSchedulerImpl::startWorkers(const char* function, std::uint32_t current,
                                     std::uint32_t effective) {
  const std::uint32_t count = effective > current ? getAvailableWorkCount(effective - current) : 0;
  KOVO_LOG(KOVO_LOG_INFO, function, kAdjustMessage, current, effective, current + count);
  for (std::uint32_t i = 0; i < count; ++i) {
    startWorkerIfBelowLimit();
  }
}

void WorkSchedulerImpl::adjustWorkerCountOnStart() {
  constexpr const char* kFunction = "kovo::WorkSchedulerImpl::adjustWorkerCountOnStart";
  const std::uint32_t effective = effectiveWorkerLimit();
  const std::uint32_t current = _workerCount;
  if (current >= 2 && effective < current) {
    KOVO_LOG(KOVO_LOG_INFO, kFunction, kAdjustMessage, current, effective, current - 1);
    return;
  }
  startWorkers(kFunction, current, effective);
}

bool WorkSchedulerImpl::adjustWorkerCountOnFinish(bool timedOut) {
  constexpr const char* kFunction = "kovo::WorkSchedulerImpl::adjustWorkerCountOnFinish";
  _strategy.onWorkFinished(timedOut);
  const std::uint32_t effective = effectiveWorkerLimit();
  const std::uint32_t current = _workerCount;
  if (current > _settings.workerPoolLowerLimit && (timedOut || effective < current)) {
    KOVO_LOG(KOVO_LOG_INFO, kFunction, kAdjustMessage, current, effective, current - 1);
    return false;
  }
  startWorkers(kFunction, current, effective);
  return true;
}

void WorkSchedulerImpl::startWorkerIfBelowLimit() {
  if (_workerCount < _strategy.getMaximumThreadCount()) {
    incrementWorkerCount();
    _pool->startWorker();
  }
}

void WorkSchedulerImpl::incrementWorkerCount() {
  if (_workerCount.fetch_add(1) == std::numeric_limits<std::uint32_t>::max()) {
    KOVO_LOG(KOVO_LOG_ERROR, "kovo::WorkSchedulerImpl::incrementWorkerCount",
             "incrementWorkerCount wrapped the count");
    KOVO_ASSERT(false, "incrementWorkerCount wrapped the count");
    _workerCount.fetch_sub(1);
  }
}

void WorkSchedulerImpl::decrementWorkerCount() {
  if (_workerCount.fetch_sub(1) == 0) {
    KOVO_LOG(KOVO_LOG_ERROR, "kovo::WorkSchedulerImpl::decrementWorkerCount",
             "decrementWorkerCount called with zero worker count");
    KOVO_ASSERT(false, "decrementWorkerCount called with zero worker count");
    _workerCount.fetch_add(1);
  }
}

// --- Queues and the paused set -----------------------------------------------------------------

bool WorkSchedulerImpl::isRunning() {
  return !_shuttingDown;
}

std::uint32_t WorkSchedulerImpl::doSubmit(std::shared_ptr<WorkProvider> provider) {
  if (provider->getToken() == NOTHING_ASYNC_TOKEN) {
    provider->setToken(nextAsyncToken());
  }
  const std::uint32_t token = provider->getToken();
  WorkQueue& queue = selectQueue(*provider);
  queue.add(std::move(provider));
  ++_events;
  adjustWorkerCountOnStart();
  _pool->wake();
  _control.keepTicking();
  return token;
}

std::uint32_t WorkSchedulerImpl::nextAsyncToken() {
  do {
    if (_lastToken == std::numeric_limits<std::uint32_t>::max()) {
      _lastToken = 0;
      _tokensWrapped = true;
    }
    ++_lastToken;
    // Once round, a token may still name a provider that has lived that long.
  } while (_tokensWrapped && (findQueuedWorkProvider(_lastToken) != nullptr ||
                              findPausedWorkProviderUnlocked(_lastToken) != nullptr));
  return _lastToken;
}

WorkQueue& WorkSchedulerImpl::selectQueue(const WorkProvider& provider) {
  return *_queues[provider.isSerial() ? 0 : 1];
}

std::shared_ptr<WorkProvider> WorkSchedulerImpl::findQueuedWorkProvider(std::uint32_t token) {
  for (const auto& queue : _queues) {
    if (std::shared_ptr<WorkProvider> provider = queue->find(token)) {
      return provider;
    }
  }
  return nullptr;
}

std::shared_ptr<WorkProvider> WorkSchedulerImpl::findPausedWorkProviderUnlocked(
    std::uint32_t token) {
  const auto position = _pausedProviders.find(token);
  return position == _pausedProviders.end() ? nullptr : position->second.provider;
}

WorkSchedulerImpl::PausedProvider* WorkSchedulerImpl::findPaused(
    const std::shared_ptr<WorkProvider>& provider) {
  const auto position = _pausedProviders.find(provider->getToken());
  return position != _pausedProviders.end() && position->second.provider == provider
             ? &position->second
             : nullptr;
}

bool WorkSchedulerImpl::isHeld(const std::shared_ptr<WorkProvider>& provider) {
  return findPaused(provider) != nullptr ||
         findQueuedWorkProvider(provider->getToken()) == provider;
}

void WorkSchedulerImpl::removeWorkProvider(const std::shared_ptr<WorkProvider>& provider) {
  const std::uint32_t token = provider->getToken();
  if (findQueuedWorkProvider(token) != nullptr) {
    removeQueuedWorkProvider(provider);
  } else if (_pausedProviders.erase(token) == 0) {
    KOVO_LOG(KOVO_LOG_WARN, "kovo::WorkSchedulerImpl::removeWorkProvider",
             "WorkSchedulerImpl.removeWorkProvider Work Provider with token %lu could not be found",
             static_cast<unsigned long>(token));
  }
}

void WorkSchedulerImpl::removeQueuedWorkProvider(const std::shared_ptr<WorkProvider>& provider) {
  selectQueue(*provider).remove(provider);
}

void WorkSchedulerImpl::onPlaceFreed() {
  ++_events;
  if (getAvailableWorkCount(1) != 0) {
    adjustWorkerCountOnStart();
  }
}

std::size_t WorkSchedulerImpl::getWorkProviderCount() {
  std::size_t count = 0;
  for (const auto& queue : _queues) {
    count += queue->getWorkProviderCount();
  }
  return count;
}

std::uint32_t WorkSchedulerImpl::getAvailableWorkCount(std::uint32_t enough) {
  std::uint32_t count = 0;
  for (const auto& queue : _queues) {
    count += queue->getAvailableWorkCount(enough - count);
  }
  return count;
}

// --- Control thread ----------------------------------------------------------------------------

void WorkSchedulerImpl::attend(const std::shared_ptr<WorkProvider>& provider) {
  {
    const DeferredLog log;
    const ScopedLock workLock(_workLock);
    if (provider->getActiveWorkCount() != 0) {
      // Its last running unit does what is to be done, when it is given back.
      return;
    }
    bool drains = false;
    {
      const ScopedLock lock(_providerLock);
      if (!isRunning() || !isHeld(provider)) {
        return;
      }
      const PausedProvider* paused = findPaused(provider);
      drains = paused != nullptr && !paused->drained;
    }
    if (provider->isCancelled()) {
      if (windDown(provider)) {
        const ScopedLock lock(_providerLock);
        removeWorkProvider(provider);
        if (isRunning()) {
          onPlaceFreed();
        }
      }
    } else if (drains) {
      provider->onPauseDrained();
      settle(provider);
    }
  }
  provider->deliverNotifications();
}

bool WorkSchedulerImpl::windDown(const std::shared_ptr<WorkProvider>& provider) {
  for (int step = 0; step < kMaxWindDownSteps && !provider->isFinished(); ++step) {
    Work* const work = provider->getNextWork();
    if (work == nullptr) {
      break;
    }
    work->setParent(provider);
    work->run();
    provider->onFinish(work);
  }
  return provider->isFinished();
}

bool WorkSchedulerImpl::tick() {
  onTimerCallback();
  const ScopedLock lock(_providerLock);
  return isRunning() && getWorkProviderCount() != 0;
}

void WorkSchedulerImpl::onTimerCallback() {
  const DeferredLog log;
  const ScopedLock lock(_providerLock);
  if (!isRunning()) {
    return;
  }
  const std::size_t count = getWorkProviderCount();
  if (count == 0) {
    return;
  }
  if (_workerCount == 0) {
    KOVO_LOG(KOVO_LOG_ERROR, "kovo::WorkSchedulerImpl::onTimerCallback",
             "WorkSchedulerImpl.onTimerCallback No worker threads running, but work "
             "provider count is: %llu",
             static_cast<unsigned long long>(count));
    startWorkerIfBelowLimit();
  }
  _pool->wake();
}

// --- Shutting down -----------------------------------------------------------------------------

void WorkSchedulerImpl::shutDown() {
  {
    const ScopedLock lock(_providerLock);
    if (_shuttingDown) {
      return;
    }
    _shuttingDown = true;
  }
  for (const auto& provider : collectUnended()) {
    provider->abandon();
  }
  _pool.reset();
  _control.stop();
  // The client may cancel a paused provider until the very end, so the look is repeated until
  // nothing is left.
  const LibraryThreadScope callbacksAreMadeHere;
  for (auto unended = collectUnended(); !unended.empty(); unended = collectUnended()) {
    endAll(unended);
  }
  std::map<std::uint32_t, PausedProvider> released;
  const ScopedLock lock(_providerLock);
  released.swap(_pausedProviders);
}

std::vector<std::shared_ptr<WorkProvider>> WorkSchedulerImpl::collectUnended() {
  // The work lock makes a unit that is being handed out count as running.
  const ScopedLock workLock(_workLock);
  const ScopedLock lock(_providerLock);
  std::vector<std::shared_ptr<WorkProvider>> providers;
  for (const auto& queue : _queues) {
    queue->collect(providers);
  }
  for (const auto& [token, paused] : _pausedProviders) {
    const WorkProvider& provider = *paused.provider;
    // Until its pause has been reported, a transfer counts as running: it owes a final callback.
    if (provider.getActiveWorkCount() != 0 || provider.isCancelled() || !paused.drained) {
      providers.push_back(paused.provider);
    }
  }
  return providers;
}

void WorkSchedulerImpl::endAll(const std::vector<std::shared_ptr<WorkProvider>>& providers) {
  for (const auto& provider : providers) {
    {
      const DeferredLog log;
      const ScopedLock workLock(_workLock);
      if (!provider->isFinished()) {
        if (!provider->isCancelled()) {
          provider->abandon();
        }
        if (!windDown(provider)) {
          KOVO_LOG(KOVO_LOG_ERROR, "kovo::WorkSchedulerImpl::endAll",
                   "Work Provider with token %lu did not end",
                   static_cast<unsigned long>(provider->getToken()));
        }
      }
      const ScopedLock lock(_providerLock);
      removeWorkProvider(provider);
    }
    provider->deliverNotifications();
  }
}

}  // namespace kovo
