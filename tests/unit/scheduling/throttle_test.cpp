#include <gtest/gtest.h>

#include <limits>

#include "scheduling/kovo_stats_aggregator_impl.h"
#include "support/log_capture.h"
#include "support/manual_clock.h"

namespace kovo {
namespace {

using test::LogCapture;
using test::ManualClock;

TEST(StatsSampleTest, FollowsTheProportionalRuleWithItsIntegral) {
  ManualClock clock;
  StatsSample sample(clock);
  sample.targetSpeed = 1024;
  clock.advance(200);
  EXPECT_EQ(sample.recordChunk(65536), 60);
  EXPECT_NEAR(sample.averageSpeed, 43690.7, 0.1);
  EXPECT_EQ(sample.integral, 10);

  // Between evaluations the sleep stands; the bytes count at the next one.
  clock.advance(50);
  EXPECT_EQ(sample.recordChunk(1000), 60);
  EXPECT_EQ(sample.bytes, 1000U);
  clock.advance(1450);
  EXPECT_EQ(sample.recordChunk(536), 70);  // exactly on target: 1536 bytes in 1.5 s
  EXPECT_DOUBLE_EQ(sample.averageSpeed, 1024.0);

  // Half the target: the ratio halves the sleep and the integral shrinks to 0, never below.
  for (const std::int64_t expected : {35, 18, 9, 5}) {
    clock.advance(2000);
    EXPECT_EQ(sample.recordChunk(1024), expected);
    EXPECT_EQ(sample.integral, 0);
  }
}

TEST(StatsSampleTest, IsBoundedAndSurvivesAClockSetBack) {
  ManualClock clock;
  StatsSample sample(clock);
  sample.targetSpeed = 1024;
  std::int64_t sleep = 0;
  const LogCapture log(KOVO_LOG_INFO);
  for (int i = 0; i < 8; ++i) {
    clock.advance(200);
    sleep = sample.recordChunk(1 << 30);
  }
  EXPECT_EQ(sleep, 15000);
  EXPECT_EQ(log.messages().back(), "Sleep time is too long, shorten to 15000 milliseconds");
  clock.advance(-3600000);
  EXPECT_EQ(sample.recordChunk(0), 15000);
  clock.advance(1500);
  EXPECT_EQ(sample.recordChunk(0), 70) << "measured again soon after the clock went back";
}

TEST(StatsAggregatorTest, SleepsForTheDirectionThatIsTooFast) {
  ManualClock clock(0);
  KOVOStatsAggregatorImpl aggregator(clock);
  EXPECT_EQ(aggregator.setTargetDataRates(0, 1), KOVO_ERROR_NONE);
  EXPECT_EQ(aggregator.getDownloadTargetSpeed(), 1024U);
  clock.advance(200);
  const LogCapture log(KOVO_LOG_INFO);
  aggregator.recordChunk(65536, true);
  EXPECT_EQ(clock.nowMilliseconds(), 200);
  aggregator.recordChunk(65536, false);
  EXPECT_EQ(clock.nowMilliseconds(), 260);
  EXPECT_EQ(aggregator.getDownloadAverageSpeed(), 43690U);
  EXPECT_EQ(aggregator.getUploadAverageSpeed(), 43690U);
  const std::vector<std::string> expected = {
      "StatsSample Recording speed: 327680.000000 average Speed: 43690.666667 Target Speed: 0",
      "StatsSample Recording speed: 327680.000000 average Speed: 43690.666667 Target Speed: 1024",
      "StatsSample changing sleep by Adjustment: 5.000000 Integral: 10 result: 60",
      "StatsAggregator sleeping for 60"};
  EXPECT_EQ(log.messages(), expected);

  aggregator.setTargetDataRates(0, 0);
  aggregator.recordChunk(65536, false);
  EXPECT_EQ(clock.nowMilliseconds(), 260) << "the throttle is gone at once";
  aggregator.setTargetDataRates(std::numeric_limits<std::uint64_t>::max(), 0);
  EXPECT_EQ(aggregator.getUploadTargetSpeed(), std::numeric_limits<std::uint64_t>::max());
}

/** Asks during each sleep whether it is to end. */
class WatchedClock : public ManualClock {
 public:
  std::function<void()> duringSleep;
  int interrupted = 0;
  bool sleepMilliseconds(std::int64_t milliseconds, const Interrupt* interrupt) override {
    if (duringSleep) {
      duringSleep();
    }
    const bool slept = ManualClock::sleepMilliseconds(milliseconds, interrupt);
    interrupted += slept ? 0 : 1;
    return slept;
  }
};

TEST(StatsAggregatorTest, ASleepEndsWithItsTransferAndWithItsTarget) {
  WatchedClock clock;
  KOVOStatsAggregatorImpl aggregator(clock);
  aggregator.setTargetDataRates(0, 1);
  clock.advance(200);
  bool cancelled = false;
  const Interrupt interrupt = [&] { return cancelled; };
  clock.duringSleep = [&] {
    aggregator.getDownloadAverageSpeed();  // no lock is held
    cancelled = true;
  };
  aggregator.recordChunk(65536, false, &interrupt);
  EXPECT_EQ(clock.interrupted, 1);
  cancelled = false;
  clock.duringSleep = [&] { aggregator.setTargetDataRates(7, 1); };
  aggregator.recordChunk(65536, false, &interrupt);
  EXPECT_EQ(clock.interrupted, 1) << "the same target once more";
  clock.duringSleep = [&] { aggregator.setTargetDataRates(0, 0); };
  aggregator.recordChunk(65536, false, &interrupt);
  EXPECT_EQ(clock.interrupted, 2);
}

}  // namespace
}  // namespace kovo
