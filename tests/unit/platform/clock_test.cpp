#include "platform/clock.h"

#include <gtest/gtest.h>

#include <chrono>
#include <ctime>
#include <limits>

#include "platform/hardware.h"

namespace kovo {
namespace {

TEST(ClockTest, SystemTimeIsMillisecondsSince1970) {
  const std::int64_t now = Clock::system().nowMilliseconds();
  EXPECT_NEAR(static_cast<double>(now) / 1000, static_cast<double>(std::time(nullptr)), 2);
}

TEST(ClockTest, InterruptEndsASleepOfAnyLength) {
  for (const std::int64_t length :
       {std::int64_t{3600'000}, std::numeric_limits<std::int64_t>::max()}) {
    int asked = 0;
    const Interrupt interrupt = [&asked] { return ++asked == 3; };
    const auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(Clock::system().sleepMilliseconds(length, &interrupt));
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
  }
}

TEST(ClockTest, NoTimeAndNoInterruptReturnAtOnce) {
  const Interrupt empty;
  EXPECT_TRUE(Clock::system().sleepMilliseconds(0, nullptr));
  EXPECT_TRUE(Clock::system().sleepMilliseconds(-1, &empty));
}

TEST(HardwareTest, FigureIsTheOneSetElseThePlatforms) {
  setHardwareConcurrency(0);
  const std::uint32_t platform = hardwareConcurrency();
  EXPECT_GE(platform, 1U);
  setHardwareConcurrency(platform + 17);
  EXPECT_EQ(hardwareConcurrency(), platform + 17);
  setHardwareConcurrency(0);
  EXPECT_EQ(hardwareConcurrency(), platform);
}

}  // namespace
}  // namespace kovo
