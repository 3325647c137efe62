#pragma once

#include "scheduling/kovo_strategy.h"

namespace kovo {

// Aims for the upper limit; every timed-out request takes one thread away, and one comes back after
// two minutes without a change.
class KOVOFixedThreadsStrategy : public KOVOStrategy {
 public:
  KOVOFixedThreadsStrategy(const KovoSettings& settings, KOVOStatsAggregator& statsAggregator,
                           Clock& clock);
  std::uint32_t getTargetThreadCount() override;
  std::uint32_t getMonitorKind() override;
  void fillMonitorRecord(void* data, std::uint64_t dataLength) override;
  void onWorkFinished(bool timedOut) override;
  void setMaximumThreadCount(std::uint32_t limit) override;

 private:
  std::uint32_t _currentThreadCount KOVO_GUARDED_BY(_lock);
  std::int64_t _lastChangeTime KOVO_GUARDED_BY(_lock) = 0;
};

}  // namespace kovo
