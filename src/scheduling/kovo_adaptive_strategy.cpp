#include "scheduling/kovo_adaptive_strategy.h"

#include <algorithm>
#include <cmath>
#include <cstring>

#include "core/assertion.h"
#include "scheduling/monitor_record.h"

namespace kovo {
namespace {

constexpr std::size_t kSamples = 8;
constexpr std::uint32_t kSettleSeconds = 4;
constexpr std::uint32_t kProbeSeconds = 10;
constexpr double kSignificant = 1.1;
constexpr double kStableDeviation = 0.1;

constexpr std::uint32_t kReasonBlockedAtMinimum = 1;
constexpr std::uint32_t kReasonProbe = 2;
constexpr std::uint32_t kReasonCompared = 3;
constexpr std::uint32_t kReasonNotStable = 6;
constexpr std::uint32_t kReasonTooSoon = 7;

}  // namespace

KOVOAdaptiveStrategy::KOVOAdaptiveStrategy(const KovoSettings& settings,
                                           KOVOStatsAggregator& statsAggregator, Clock& clock)
    : KOVOStrategy(settings, statsAggregator, clock),
      _lastReason(kReasonTooSoon),
      _lastDecisionTime(clock.nowMilliseconds()),
      _minimumThreadCount(std::max<std::uint32_t>(settings.workerPoolLowerLimit, 1)),
      _currentThreadCount(std::max(settings.adaptiveInitialThreadCount, _minimumThreadCount)) {
  _throughputHistory.reserve(kSamples);
}

std::uint32_t KOVOAdaptiveStrategy::getTargetThreadCount() {
  const ScopedLock lock(_lock);
  decide();
  return _currentThreadCount;
}

std::uint32_t KOVOAdaptiveStrategy::getMonitorKind() {
  return monitorKindIfDue(kMonitorKindAdaptive);
}

void KOVOAdaptiveStrategy::fillMonitorRecord(void* data, std::uint64_t dataLength) {
  KOVO_ASSERT(data, "data");
  KOVO_ASSERT(sizeof(kovo_monitor_adaptive_strategy) == dataLength,
              "sizeof(kovo_monitor_adaptive_strategy) == dataLength");
  if (data == nullptr || dataLength != sizeof(kovo_monitor_adaptive_strategy)) {
    return;
  }
  const ScopedLock lock(_lock);
  kovo_monitor_adaptive_strategy record = {};
  record.uploadThroughput = _statsAggregator.getUploadAverageSpeed();
  record.downloadThroughput = _statsAggregator.getDownloadAverageSpeed();
  record.totalThroughput = record.uploadThroughput + record.downloadThroughput;
  record.currentThreadCount = _currentThreadCount;
  record.reservedValueB = static_cast<std::int32_t>(_reservedValueB);
  record.reservedCountA = _reservedCountA;
  record.lastReason = _lastReason;
  record.lastDecision = static_cast<std::int32_t>(_lastDecision) -
                        static_cast<std::int32_t>(KOVO_ADAPTIVE_DECISION_NEUTRAL);
  std::memcpy(data, &record, sizeof(record));
}

void KOVOAdaptiveStrategy::onWorkFinished(bool /*timedOut*/) {}

void KOVOAdaptiveStrategy::setMaximumThreadCount(std::uint32_t limit) {
  const ScopedLock lock(_lock);
  _maximumThreadCount = limit;
}

kovo_adaptive_decision KOVOAdaptiveStrategy::decide() {
  const ScopedLock lock(_lock);
  const std::uint64_t throughput =
      _statsAggregator.getDownloadAverageSpeed() + _statsAggregator.getUploadAverageSpeed();
  recordThroughput(throughput);
  if (!isThroughputStable()) {
    _lastReason = kReasonNotStable;
    return KOVO_ADAPTIVE_DECISION_NEUTRAL;
  }
  // A decision in the future means that the wall clock was set back: wait from here.
  _lastDecisionTime = std::min(_lastDecisionTime, nowMilliseconds());
  if (decidedWithinSeconds(kSettleSeconds)) {
    _lastReason = kReasonTooSoon;
    return KOVO_ADAPTIVE_DECISION_NEUTRAL;
  }
  _lastReason = kReasonCompared;
  const bool positive = isPositiveOutcome(_previousThroughput, throughput);
  const bool neutral = isNeutralOutcome(_previousThroughput, throughput);
  KOVO_ASSERT(!positive || !neutral, "!positiveOutcome || !neutralOutcome");

  kovo_adaptive_decision decision = KOVO_ADAPTIVE_DECISION_NEUTRAL;
  if (!neutral) {
    if (_lastDecision == KOVO_ADAPTIVE_DECISION_DECREASE) {
      decision = positive ? KOVO_ADAPTIVE_DECISION_DECREASE : KOVO_ADAPTIVE_DECISION_INCREASE;
    } else {
      KOVO_ASSERT(_lastDecision == KOVO_ADAPTIVE_DECISION_INCREASE ||
                      _lastDecision == KOVO_ADAPTIVE_DECISION_NEUTRAL,
                  "lastDecision() == KOVO_ADAPTIVE_DECISION_NEUTRAL");
      decision = positive ? KOVO_ADAPTIVE_DECISION_INCREASE : KOVO_ADAPTIVE_DECISION_DECREASE;
    }
  }
  const bool blocked = decision == KOVO_ADAPTIVE_DECISION_DECREASE && atMinimum();
  if ((neutral || blocked) && !decidedWithinSeconds(kProbeSeconds)) {
    decision =
        nextProbeDirection() ? KOVO_ADAPTIVE_DECISION_INCREASE : KOVO_ADAPTIVE_DECISION_DECREASE;
    _lastReason = kReasonProbe;
  }
  return apply(decision, throughput);
}

kovo_adaptive_decision KOVOAdaptiveStrategy::apply(kovo_adaptive_decision decision,
                                                   std::uint64_t throughput) {
  if (decision == KOVO_ADAPTIVE_DECISION_DECREASE && atMinimum()) {
    _lastDecision = KOVO_ADAPTIVE_DECISION_NEUTRAL;
    _lastReason = kReasonBlockedAtMinimum;
    return KOVO_ADAPTIVE_DECISION_NEUTRAL;
  }
  _lastDecision = decision;
  _previousThroughput = throughput;
  _lastDecisionTime = nowMilliseconds();
  if (decision == KOVO_ADAPTIVE_DECISION_DECREASE) {
    --_currentThreadCount;
  } else if (decision == KOVO_ADAPTIVE_DECISION_INCREASE) {
    ++_currentThreadCount;
  }
  KOVO_ASSERT(_currentThreadCount >= _minimumThreadCount,
              "_currentThreadCount >= _minimumThreadCount");
  return decision;
}

std::uint32_t KOVOAdaptiveStrategy::getCurrentThreadCount() {
  const ScopedLock lock(_lock);
  return _currentThreadCount;
}

kovo_adaptive_decision KOVOAdaptiveStrategy::lastDecision() {
  const ScopedLock lock(_lock);
  return _lastDecision;
}

std::uint32_t KOVOAdaptiveStrategy::lastReason() {
  const ScopedLock lock(_lock);
  return _lastReason;
}

std::int64_t KOVOAdaptiveStrategy::lastDecisionTime() {
  const ScopedLock lock(_lock);
  return _lastDecisionTime;
}

bool KOVOAdaptiveStrategy::decidedWithinSeconds(std::uint32_t seconds) {
  const ScopedLock lock(_lock);
  return _lastDecisionTime > nowMilliseconds() - static_cast<std::int64_t>(seconds) * 1000;
}

bool KOVOAdaptiveStrategy::nextProbeDirection() {
  const ScopedLock lock(_lock);
  const bool up = _probeUp;
  _probeUp = !up;
  return up;
}

bool KOVOAdaptiveStrategy::isPositiveOutcome(std::uint64_t previous, std::uint64_t current) {
  return static_cast<double>(current) >= static_cast<double>(previous) * kSignificant;
}

bool KOVOAdaptiveStrategy::isNegativeOutcome(std::uint64_t previous, std::uint64_t current) {
  return static_cast<double>(previous) >= static_cast<double>(current) * kSignificant;
}

bool KOVOAdaptiveStrategy::isNeutralOutcome(std::uint64_t previous, std::uint64_t current) {
  return !isPositiveOutcome(previous, current) && !isNegativeOutcome(previous, current);
}

bool KOVOAdaptiveStrategy::clearReservedValueB() {
  const ScopedLock lock(_lock);
  _reservedValueB = 0;
  return false;
}

bool KOVOAdaptiveStrategy::clearReservedCountA() {
  const ScopedLock lock(_lock);
  _reservedCountA = 0;
  return false;
}

bool KOVOAdaptiveStrategy::isThroughputStable() {
  const ScopedLock lock(_lock);
  if (_throughputHistory.size() < kSamples) {
    return false;
  }
  const double count = static_cast<double>(_throughputHistory.size());
  double mean = 0;
  for (const std::uint64_t sample : _throughputHistory) {
    mean += static_cast<double>(sample) / count;
  }
  double variance = 0;
  for (const std::uint64_t sample : _throughputHistory) {
    const double deviation = static_cast<double>(sample) - mean;
    variance += deviation * deviation / count;
  }
  return kStableDeviation * mean > std::sqrt(variance);
}

std::uint64_t KOVOAdaptiveStrategy::previousThroughput() {
  const ScopedLock lock(_lock);
  return _previousThroughput;
}

void KOVOAdaptiveStrategy::recordThroughput(std::uint64_t throughput) {
  const ScopedLock lock(_lock);
  while (_throughputHistory.size() >= kSamples) {
    _throughputHistory.erase(_throughputHistory.begin());
  }
  _throughputHistory.push_back(throughput);
}

void KOVOAdaptiveStrategy::setState(kovo_adaptive_decision decision, std::int64_t decisionTime,
                                    std::uint32_t reason, const std::vector<std::uint64_t>& history,
                                    std::uint64_t previousThroughput, std::uint32_t threadCount) {
  const ScopedLock lock(_lock);
  _lastDecision = decision;
  _lastDecisionTime = decisionTime;
  _lastReason = reason;
  _throughputHistory = history;
  _previousThroughput = previousThroughput;
  _currentThreadCount = threadCount;
}

void KOVOAdaptiveStrategy::setLastDecisionTime(std::int64_t time) {
  const ScopedLock lock(_lock);
  _lastDecisionTime = time;
}

}  // namespace kovo
