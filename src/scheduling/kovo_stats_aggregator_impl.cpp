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

}  // namespace

void KOVOStatsAggregatorImpl::Direction::setTarget(std::uint64_t kibPerSecond) {
  const std::uint64_t before = sample.targetSpeed;
  sample.targetSpeed = kibPerSecond > kMaxSpeed / 1024 ? kMaxSpeed : kibPerSecond * 1024;
  sample.integral = 0;
  if (sample.targetSpeed == 0) {
    sample.sleepMs = 0;
  }
  if (before != 0 && (sample.targetSpeed == 0 || sample.targetSpeed > before)) {
    ++raises;
  }
}

KOVOStatsAggregatorImpl::KOVOStatsAggregatorImpl(Clock& clock)
    : _clock(clock), _upload(clock), _download(clock) {}

void KOVOStatsAggregatorImpl::recordChunk(std::uint64_t bytes, bool upload,
                                          const Interrupt* interrupt) {
  std::int64_t sleep = 0;
  const std::atomic<std::uint32_t>* raises = nullptr;
  std::uint32_t raisesBefore = 0;
  {
    const DeferredLog log;
    const ScopedLock lock(_lock);
    Direction& direction = upload ? _upload : _download;
    sleep = direction.sample.recordChunk(bytes);
    raises = &direction.raises;
    raisesBefore = *raises;
  }
  if (sleep <= 0) {
    return;
  }
  KOVO_LOG(KOVO_LOG_INFO, "kovo::KOVOStatsAggregatorImpl::recordChunk",
           "StatsAggregator sleeping for %lld", static_cast<long long>(sleep));
  const Interrupt wakeUp = [raises, raisesBefore, interrupt] {
    return *raises != raisesBefore || (interrupt != nullptr && *interrupt && (*interrupt)());
  };
  _clock.sleepMilliseconds(sleep, &wakeUp);
}

std::uint64_t KOVOStatsAggregatorImpl::getUploadAverageSpeed() {
  const ScopedLock lock(_lock);
  return toBytesPerSecond(_upload.sample.averageSpeed);
}

std::uint64_t KOVOStatsAggregatorImpl::getDownloadAverageSpeed() {
  const ScopedLock lock(_lock);
  return toBytesPerSecond(_download.sample.averageSpeed);
}

std::uint64_t KOVOStatsAggregatorImpl::getUploadTargetSpeed() {
  const ScopedLock lock(_lock);
  return _upload.sample.targetSpeed;
}

std::uint64_t KOVOStatsAggregatorImpl::getDownloadTargetSpeed() {
  const ScopedLock lock(_lock);
  return _download.sample.targetSpeed;
}

kovo_error KOVOStatsAggregatorImpl::setTargetDataRates(std::uint64_t uploadRate,
                                                       std::uint64_t downloadRate) {
  const ScopedLock lock(_lock);
  _upload.setTarget(uploadRate);
  _download.setTarget(downloadRate);
  return KOVO_ERROR_NONE;
}

}  // namespace kovo
