#include "scheduling/kovo_strategy.h"

#include <algorithm>

#include "scheduling/monitor_record.h"

namespace kovo {

KOVOStrategy::KOVOStrategy(const KovoSettings& settings, KOVOStatsAggregator& statsAggregator,
                           Clock& clock)
    : _maximumThreadCount(settings.workerPoolUpperLimit),
      _settings(settings),
      _statsAggregator(statsAggregator),
      _clock(clock) {}

KOVOStrategy::~KOVOStrategy() = default;

std::uint64_t KOVOStrategy::getChunkSize(std::uint64_t length) const {
  return length == 0 ? _settings.chunkSize : std::min(length, _settings.chunkSize);
}

std::int64_t KOVOStrategy::nowMilliseconds() {
  return _clock.nowMilliseconds();
}

std::uint32_t KOVOStrategy::getMaximumThreadCount() {
  const ScopedLock lock(_lock);
  return _maximumThreadCount;
}

const KovoSettings& KOVOStrategy::getSettings() const {
  return _settings;
}

std::uint32_t KOVOStrategy::monitorKindIfDue(std::uint32_t kind) {
  if (_settings.progressInterval == 0) {
    return kMonitorKindNone;
  }
  const ScopedLock lock(_lock);
  const std::int64_t now = nowMilliseconds();
  // A last time in the future means that the wall clock was set back.
  const std::int64_t elapsed = now - _lastMonitorTime;
  if (elapsed >= 0 && elapsed < static_cast<std::int64_t>(_settings.progressInterval)) {
    return kMonitorKindNone;
  }
  _lastMonitorTime = now;
  return kind;
}

}  // namespace kovo
