#pragma once

#include <vector>

#include "scheduling/kovo_strategy.h"

namespace kovo {

using kovo_adaptive_decision = std::uint32_t;
enum : kovo_adaptive_decision {
  KOVO_ADAPTIVE_DECISION_DECREASE = 0,
  KOVO_ADAPTIVE_DECISION_NEUTRAL = 1,
  KOVO_ADAPTIVE_DECISION_INCREASE = 2,
};

// Moves the thread count one step at a time in the direction that improved the total throughput by
// at least a tenth; probes in alternate directions while it is flat. Every query of the target is
// one step of adaptation:
//   1. The present throughput is recorded; nothing is decided until the last 8 samples are stable
//      (their deviation below a tenth of their mean), nor within 4 s of the last decision.
//   2. Better than at the last decision: the same direction again. Worse: the other one.
//   3. Flat, or nothing left to take away: a probe, at most every 10 s.
//   4. A decrease never goes below the minimum.
class KOVOAdaptiveStrategy : public KOVOStrategy {
 public:
  KOVOAdaptiveStrategy(const KovoSettings& settings, KOVOStatsAggregator& statsAggregator,
                       Clock& clock);
  std::uint32_t getTargetThreadCount() override;
  std::uint32_t getMonitorKind() override;
  void fillMonitorRecord(void* data, std::uint64_t dataLength) override;
  void onWorkFinished(bool timedOut) override;
  void setMaximumThreadCount(std::uint32_t limit) override;

  virtual kovo_adaptive_decision decide();
  virtual std::uint32_t getCurrentThreadCount();
  virtual kovo_adaptive_decision lastDecision();
  // 7 too soon after the last decision, 6 throughput not stable, 3 decided by comparison, 2 probe,
  // 1 a decrease was blocked at the minimum.
  virtual std::uint32_t lastReason();
  virtual std::int64_t lastDecisionTime();
  virtual bool decidedWithinSeconds(std::uint32_t seconds);
  // Alternates, beginning with false (down).
  virtual bool nextProbeDirection();
  virtual bool isPositiveOutcome(std::uint64_t previous, std::uint64_t current);
  virtual bool isNegativeOutcome(std::uint64_t previous, std::uint64_t current);
  virtual bool isNeutralOutcome(std::uint64_t previous, std::uint64_t current);
  virtual bool clearReservedValueB();
  virtual bool clearReservedCountA();
  virtual bool isThroughputStable();
  virtual std::uint64_t previousThroughput();
  virtual void recordThroughput(std::uint64_t throughput);
  virtual void setState(kovo_adaptive_decision decision, std::int64_t decisionTime,
                        std::uint32_t reason, const std::vector<std::uint64_t>& history,
                        std::uint64_t previousThroughput, std::uint32_t threadCount);
  virtual void setLastDecisionTime(std::int64_t time);

 private:
  kovo_adaptive_decision apply(kovo_adaptive_decision decision, std::uint64_t throughput)
      KOVO_REQUIRES(_lock);
  bool atMinimum() const KOVO_REQUIRES(_lock) { return _currentThreadCount <= _minimumThreadCount; }

  kovo_adaptive_decision _lastDecision KOVO_GUARDED_BY(_lock) = KOVO_ADAPTIVE_DECISION_NEUTRAL;
  std::uint32_t _lastReason KOVO_GUARDED_BY(_lock);
  std::int64_t _lastDecisionTime KOVO_GUARDED_BY(_lock);
  bool _probeUp KOVO_GUARDED_BY(_lock) = false;
  std::vector<std::uint64_t> _throughputHistory KOVO_GUARDED_BY(_lock);
  std::uint64_t _previousThroughput KOVO_GUARDED_BY(_lock) = 0;
  std::uint64_t _reservedCountA KOVO_GUARDED_BY(_lock) = 0;
  double _reservedValueB KOVO_GUARDED_BY(_lock) = 0;
  const std::uint32_t _minimumThreadCount;
  std::uint32_t _currentThreadCount KOVO_GUARDED_BY(_lock);
};

}  // namespace kovo
