#pragma once

#include <boost/noncopyable.hpp>
#include <cstdint>

#include "core/kovo_settings.h"
#include "core/lock.h"
#include "platform/clock.h"
#include "scheduling/kovo_stats_aggregator.h"

namespace kovo {

// How many worker runs the scheduler should aim for. Lock order: _lock before the aggregator's.
class KOVOStrategy : boost::noncopyable {
 public:
  KOVOStrategy(const KovoSettings& settings, KOVOStatsAggregator& statsAggregator, Clock& clock);
  virtual ~KOVOStrategy();

  virtual std::uint32_t getTargetThreadCount() = 0;
  // The chunkSize setting, or length when it is smaller and not 0.
  virtual std::uint64_t getChunkSize(std::uint64_t length) const;
  // 0: no record due; 1: adaptive; 2: fixed.
  virtual std::uint32_t getMonitorKind() = 0;
  virtual void fillMonitorRecord(void* data, std::uint64_t dataLength) = 0;
  virtual void onWorkFinished(bool timedOut) = 0;
  virtual std::int64_t nowMilliseconds();
  virtual void setMaximumThreadCount(std::uint32_t limit) = 0;
  virtual std::uint32_t getMaximumThreadCount();
  virtual const KovoSettings& getSettings() const;

 protected:
  // kind when a record is due now (and marks it as made), else 0.
  std::uint32_t monitorKindIfDue(std::uint32_t kind);

  std::int64_t _lastMonitorTime KOVO_GUARDED_BY(_lock) = 0;
  RecursiveLock _lock;
  std::uint32_t _maximumThreadCount KOVO_GUARDED_BY(_lock);
  const KovoSettings& _settings;
  KOVOStatsAggregator& _statsAggregator;
  Clock& _clock;
};

}  // namespace kovo
