#pragma once

#include <atomic>

#include "core/lock.h"
#include "scheduling/kovo_stats_aggregator.h"
#include "scheduling/stats_sample.h"

namespace kovo {

class KOVOStatsAggregatorImpl : public KOVOStatsAggregator {
 public:
  // clock outlives the aggregator.
  explicit KOVOStatsAggregatorImpl(Clock& clock);
  void recordChunk(std::uint64_t bytes, bool upload, const Interrupt* interrupt = nullptr) override;
  std::uint64_t getUploadAverageSpeed() override;
  std::uint64_t getDownloadAverageSpeed() override;
  std::uint64_t getUploadTargetSpeed() override;
  std::uint64_t getDownloadTargetSpeed() override;
  kovo_error setTargetDataRates(std::uint64_t uploadRate, std::uint64_t downloadRate) override;

 private:
  Clock& _clock;
  // One direction. Whoever sleeps for a target wakes up when a larger one, or none, takes its
  // place: raises counts those.
  struct Direction {
    explicit Direction(Clock& clock) : sample(clock) {}
    void setTarget(std::uint64_t kibPerSecond);

    StatsSample sample;
    std::atomic<std::uint32_t> raises{0};
  };

  RecursiveLock _lock;
  Direction _upload KOVO_GUARDED_BY(_lock);
  Direction _download KOVO_GUARDED_BY(_lock);
};

}  // namespace kovo
