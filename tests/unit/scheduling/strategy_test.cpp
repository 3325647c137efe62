#include <gtest/gtest.h>

#include "scheduling/kovo_adaptive_strategy.h"
#include "scheduling/kovo_fixed_threads_strategy.h"
#include "support/manual_clock.h"
#include "unit/scheduling/fake_stats_aggregator.h"

namespace kovo {
namespace {

class StrategyTest : public testing::Test {
 protected:
  KovoSettings settings;
  test::FakeStatsAggregator stats;
  test::ManualClock clock;
};

TEST_F(StrategyTest, FixedBacksOffPerTimeoutAndRecoversEveryTwoMinutes) {
  KOVOFixedThreadsStrategy strategy(settings, stats, clock);
  EXPECT_EQ(strategy.getTargetThreadCount(), 16U);
  for (int i = 0; i < 20; ++i) {
    strategy.onWorkFinished(true);
  }
  EXPECT_EQ(strategy.getTargetThreadCount(), 2U);
  clock.advance(120000);
  strategy.onWorkFinished(false);
  EXPECT_EQ(strategy.getTargetThreadCount(), 2U);
  clock.advance(1);
  strategy.onWorkFinished(false);
  strategy.onWorkFinished(false);
  EXPECT_EQ(strategy.getTargetThreadCount(), 3U);
  clock.advance(-1000000);
  strategy.onWorkFinished(false);
  EXPECT_EQ(strategy.getTargetThreadCount(), 4U) << "a clock set back does not stop recovery";
}

TEST_F(StrategyTest, FixedFollowsTheLimitUnlessItHasBackedOff) {
  KOVOFixedThreadsStrategy strategy(settings, stats, clock);
  strategy.setMaximumThreadCount(20);
  EXPECT_EQ(strategy.getTargetThreadCount(), 20U);
  for (int i = 0; i < 10; ++i) {
    strategy.onWorkFinished(true);
  }
  strategy.setMaximumThreadCount(12);
  EXPECT_EQ(strategy.getTargetThreadCount(), 10U);
  EXPECT_EQ(strategy.getMaximumThreadCount(), 12U);
  strategy.setMaximumThreadCount(8);
  EXPECT_EQ(strategy.getTargetThreadCount(), 8U);
}

class AdaptiveTest : public StrategyTest {
 protected:
  // Eight samples of the present throughput, more than 4 s after the last decision.
  void settle(std::uint64_t throughput) {
    stats.download = throughput;
    for (int i = 0; i < 7; ++i) {
      strategy.recordThroughput(throughput);
    }
    clock.advance(4001);
  }

  KOVOAdaptiveStrategy strategy{settings, stats, clock};
};

TEST_F(AdaptiveTest, DecidesNothingBeforeTheThroughputIsStable) {
  clock.advance(60000);
  stats.download = 1000;
  for (int i = 0; i < 7; ++i) {
    EXPECT_EQ(strategy.getTargetThreadCount(), 8U);
    EXPECT_EQ(strategy.lastReason(), 6U);
  }
  // The first decision has nothing to compare with: any throughput is an improvement.
  EXPECT_EQ(strategy.getTargetThreadCount(), 9U);
  EXPECT_EQ(strategy.lastReason(), 3U);
  EXPECT_EQ(strategy.getTargetThreadCount(), 9U);
  EXPECT_EQ(strategy.lastReason(), 7U);
  stats.download = 5000;
  EXPECT_EQ(strategy.getTargetThreadCount(), 9U);
  EXPECT_EQ(strategy.lastReason(), 6U);
}

TEST_F(AdaptiveTest, KeepsTheDirectionThatHelpedAndReversesTheOther) {
  settle(100);
  EXPECT_EQ(strategy.decide(), KOVO_ADAPTIVE_DECISION_INCREASE);
  settle(111);
  EXPECT_EQ(strategy.decide(), KOVO_ADAPTIVE_DECISION_INCREASE);
  settle(100);
  EXPECT_EQ(strategy.decide(), KOVO_ADAPTIVE_DECISION_DECREASE);
  settle(200);
  EXPECT_EQ(strategy.decide(), KOVO_ADAPTIVE_DECISION_DECREASE);
  settle(100);
  EXPECT_EQ(strategy.decide(), KOVO_ADAPTIVE_DECISION_INCREASE);
  EXPECT_EQ(strategy.getCurrentThreadCount(), 9U);
  settle(109);
  EXPECT_EQ(strategy.decide(), KOVO_ADAPTIVE_DECISION_NEUTRAL) << "flat";
  EXPECT_EQ(strategy.getCurrentThreadCount(), 9U);
}

TEST_F(AdaptiveTest, ProbesInTurnsWhileFlat) {
  settle(100);
  strategy.decide();
  for (const std::uint32_t expected : {8U, 9U, 8U}) {
    clock.advance(10000);
    settle(100);
    EXPECT_EQ(strategy.getTargetThreadCount(), expected);
    EXPECT_EQ(strategy.lastReason(), 2U);
  }
}

TEST_F(AdaptiveTest, NeverGoesBelowItsMinimum) {
  settle(100);
  strategy.setState(KOVO_ADAPTIVE_DECISION_INCREASE, clock.nowMilliseconds() - 5000, 3,
                    std::vector<std::uint64_t>(8, 100), 200, 2);
  EXPECT_EQ(strategy.decide(), KOVO_ADAPTIVE_DECISION_NEUTRAL);
  EXPECT_EQ(strategy.lastReason(), 1U);
  EXPECT_EQ(strategy.lastDecision(), KOVO_ADAPTIVE_DECISION_NEUTRAL);
  EXPECT_EQ(strategy.getCurrentThreadCount(), 2U);
  strategy.nextProbeDirection();
  strategy.setLastDecisionTime(clock.nowMilliseconds() - 10000);
  EXPECT_EQ(strategy.decide(), KOVO_ADAPTIVE_DECISION_INCREASE) << "a probe upwards is free to go";
  EXPECT_EQ(strategy.getCurrentThreadCount(), 3U);
}

TEST_F(AdaptiveTest, AClockSetBackDelaysNoDecisionForLong) {
  clock.advance(-3600000);
  settle(100);
  strategy.decide();
  settle(100);
  EXPECT_EQ(strategy.decide(), KOVO_ADAPTIVE_DECISION_INCREASE);
}

}  // namespace
}  // namespace kovo
