#pragma once

#include <atomic>
#include <cstdint>

#include "platform/clock.h"

namespace kovo::test {

/** Time that passes only when a test says so; a sleep takes its whole time at once. */
class ManualClock : public Clock {
 public:
  explicit ManualClock(std::int64_t start = 1'000'000) : _now(start) {}

  void advance(std::int64_t milliseconds) { _now += milliseconds; }
  std::int64_t nowMilliseconds() override { return _now; }
  bool sleepMilliseconds(std::int64_t milliseconds, const Interrupt* interrupt) override {
    if (interrupt != nullptr && *interrupt && (*interrupt)()) {
      return false;
    }
    _now += milliseconds;
    return true;
  }

 private:
  std::atomic<std::int64_t> _now;
};

}  // namespace kovo::test
