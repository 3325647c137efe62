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
  RecursiveLock _lock;
  StatsSample _upload KOVO_GUARDED_BY(_lock);
  StatsSample _download KOVO_GUARDED_BY(_lock);
  // Counts the changes of the targets: whoever sleeps for an earlier one wakes up.
  std::atomic<std::uint32_t> _targetChanges{0};
};

}  // namespace kovo
