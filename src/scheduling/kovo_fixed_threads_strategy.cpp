#include "scheduling/kovo_fixed_threads_strategy.h"

#include <cstring>

#include "core/assertion.h"
#include "scheduling/monitor_record.h"

namespace kovo {
namespace {

constexpr std::int64_t kRecoveryInterval = 120000;

}  // namespace

KOVOFixedThreadsStrategy::KOVOFixedThreadsStrategy(const KovoSettings& settings,
                                                   KOVOStatsAggregator& statsAggregator,
                                                   Clock& clock)
    : KOVOStrategy(settings, statsAggregator, clock),
      _currentThreadCount(settings.workerPoolUpperLimit) {}

std::uint32_t KOVOFixedThreadsStrategy::getTargetThreadCount() {
  const ScopedLock lock(_lock);
  return _currentThreadCount;
}

std::uint32_t KOVOFixedThreadsStrategy::getMonitorKind() {
  return monitorKindIfDue(kMonitorKindFixed);
}

void KOVOFixedThreadsStrategy::fillMonitorRecord(void* data, std::uint64_t dataLength) {
  KOVO_ASSERT(data, "data");
  KOVO_ASSERT(sizeof(kovo_monitor_fixed_threads_strategy) == dataLength,
              "sizeof(kovo_monitor_fixed_threads_strategy) == dataLength");
  if (data == nullptr || dataLength != sizeof(kovo_monitor_fixed_threads_strategy)) {
    return;
  }
  const ScopedLock lock(_lock);
  kovo_monitor_fixed_threads_strategy record = {};
  record.uploadThroughput = _statsAggregator.getUploadAverageSpeed();
  record.downloadThroughput = _statsAggregator.getDownloadAverageSpeed();
  record.totalThroughput = record.uploadThroughput + record.downloadThroughput;
  record.targetThreadCount = _currentThreadCount;
  std::memcpy(data, &record, sizeof(record));
}

void KOVOFixedThreadsStrategy::onWorkFinished(bool timedOut) {
  const ScopedLock lock(_lock);
  if (timedOut) {
    if (_currentThreadCount > _settings.workerPoolLowerLimit) {
      --_currentThreadCount;
      _lastChangeTime = nowMilliseconds();
    }
  } else if (_currentThreadCount < _maximumThreadCount) {
    // A last change in the future means that the wall clock was set back.
    const std::int64_t now = nowMilliseconds();
    if (now - _lastChangeTime > kRecoveryInterval || now < _lastChangeTime) {
      ++_currentThreadCount;
      _lastChangeTime = now;
    }
  }
}

void KOVOFixedThreadsStrategy::setMaximumThreadCount(std::uint32_t limit) {
  const ScopedLock lock(_lock);
  const bool hasBackedOff = _currentThreadCount < _maximumThreadCount;
  if (!hasBackedOff || limit < _currentThreadCount) {
    _currentThreadCount = limit;
  }
  _maximumThreadCount = limit;
}

}  // namespace kovo
