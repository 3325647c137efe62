#include "platform/clock.h"

#include <algorithm>
#include <chrono>
#include <thread>

namespace kovo {
namespace {

constexpr std::int64_t kInterruptPeriodMilliseconds = 50;
constexpr std::int64_t kLongestSleepMilliseconds = 1000LL * 86400 * 365;

bool isInterrupted(const Interrupt* interrupt) {
  return interrupt != nullptr && *interrupt && (*interrupt)();
}

class SystemClock : public Clock {
 public:
  std::int64_t nowMilliseconds() override {
    using std::chrono::milliseconds;
    const auto sinceEpoch = std::chrono::system_clock::now().time_since_epoch();
    return std::chrono::duration_cast<milliseconds>(sinceEpoch).count();
  }

  bool sleepMilliseconds(std::int64_t milliseconds, const Interrupt* interrupt) override {
    using Steady = std::chrono::steady_clock;
    const auto end = Steady::now() +
                     std::chrono::milliseconds(std::min(milliseconds, kLongestSleepMilliseconds));
    for (;;) {
      if (isInterrupted(interrupt)) {
        return false;
      }
      const auto now = Steady::now();
      if (now >= end) {
        return true;
      }
      std::this_thread::sleep_until(
          std::min(end, now + std::chrono::milliseconds(kInterruptPeriodMilliseconds)));
    }
  }
};

}  // namespace

Clock& Clock::system() {
  static SystemClock* instance = new SystemClock;  // outlives every thread that may sleep
  return *instance;
}

}  // namespace kovo
