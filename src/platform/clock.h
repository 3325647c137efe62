#pragma once

#include <cstdint>
#include <functional>

namespace kovo {

// Answers whether a wait is to be given up (a cancelled transfer, an engine shutting down). Called
// often, from the waiting thread.
using Interrupt = std::function<bool()>;

// Time, injected wherever it matters so that no test sleeps to see it pass.
class Clock {
 public:
  virtual ~Clock() = default;

  // Wall-clock milliseconds since 1970.
  virtual std::int64_t nowMilliseconds() = 0;
  // Sleeps, looking at interrupt (may be null) at least every 50 ms; false when it was interrupted.
  virtual bool sleepMilliseconds(std::int64_t milliseconds, const Interrupt* interrupt) = 0;

  // The process's real clock.
  static Clock& system();
};

}  // namespace kovo
