#include "scheduling/kovo_stats_aggregator_impl.h"

#include <limits>

#include "log/deferred_log.h"
#include "log/kovo_log.h"

namespace kovo {
namespace {

constexpr std::uint64_t kMaxSpeed = std::numeric_limits<std::uint64_t>::max();

std::uint64_t toBytesPerSecond(double speed) {
  return speed < static_cast<double>(kMaxSpeed) ? static_cast<std::uint64_t>(speed) : kMaxSpeed;
}

void setTarget(StatsSample& sample, std::uint64_t kibPerSecond) {
  sample.targetSpeed = kibPerSecond > kMaxSpeed / 1024 ? kMaxSpeed : kibPerSecond * 1024;
  sample.integral = 0;
  if (sample.targetSpeed == 0) {
    sample.sleepMs = 0;
  }
}

}  // namespace

KOVOStatsAggregatorImpl::KOVOStatsAggregatorImpl(Clock& clock)
    : _clock(clock), _upload(clock), _download(clock) {}

void KOVOStatsAggregatorImpl::recordChunk(std::uint64_t bytes, bool upload,
                                          const Interrupt* interrupt) {
  std::int64_t sleep = 0;
  std::uint32_t targetChanges = 0;
  {
    const DeferredLog log;
    const ScopedLock lock(_lock);
    sleep = (upload ? _upload : _download).recordChunk(bytes);
    targetChanges = _targetChanges;
  }
  if (sleep <= 0) {
    return;
  }
  KOVO_LOG(KOVO_LOG_INFO, "kovo::KOVOStatsAggregatorImpl::recordChunk",
           "StatsAggregator sleeping for %lld", static_cast<long long>(sleep));
  const Interrupt wakeUp = [this, targetChanges, interrupt] {
    return _targetChanges != targetChanges ||
           (interrupt != nullptr && *interrupt && (*interrupt)());
  };
  _clock.sleepMilliseconds(sleep, &wakeUp);
}

std::uint64_t KOVOStatsAggregatorImpl::getUploadAverageSpeed() {
  const ScopedLock lock(_lock);
  return toBytesPerSecond(_upload.averageSpeed);
}

std::uint64_t KOVOStatsAggregatorImpl::getDownloadAverageSpeed() {
  const ScopedLock lock(_lock);
  return toBytesPerSecond(_download.averageSpeed);
}

std::uint64_t KOVOStatsAggregatorImpl::getUploadTargetSpeed() {
  const ScopedLock lock(_lock);
  return _upload.targetSpeed;
}

std::uint64_t KOVOStatsAggregatorImpl::getDownloadTargetSpeed() {
  const ScopedLock lock(_lock);
  return _download.targetSpeed;
}

kovo_error KOVOStatsAggregatorImpl::setTargetDataRates(std::uint64_t uploadRate,
                                                       std::uint64_t downloadRate) {
  const ScopedLock lock(_lock);
  setTarget(_upload, uploadRate);
  setTarget(_download, downloadRate);
  ++_targetChanges;
  return KOVO_ERROR_NONE;
}

}  // namespace kovo
