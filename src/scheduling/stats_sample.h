#pragma once

#include <cstdint>

#include "platform/clock.h"

namespace kovo {

// The throughput of one direction and the throttle that holds it to its target. Guarded by the
// aggregator's lock.
//
// The throttle, at each evaluation (at most every 100 ms):
//   1. The speed since the last evaluation is blended into the average, with a weight that grows
//      with the time it covers and is full after 1.5 s.
//   2. The sleep grows or shrinks with average / target, at most five-fold at once: that finds the
//      order of magnitude within a few evaluations.
//   3. A term that moves by 10 ms per evaluation removes what the ratio alone leaves over.
struct StatsSample {
  explicit StatsSample(Clock& sampleClock);

  // Counts bytes; how many milliseconds the reporting thread is to sleep.
  std::int64_t recordChunk(std::uint64_t count);

  Clock& clock;
  std::uint64_t bytes = 0;  // since lastTime
  std::int64_t lastTime;
  std::uint64_t targetSpeed = 0;  // bytes per second, 0: no throttling
  double averageSpeed = 0;        // bytes per second
  std::int64_t sleepMs = 0;
  std::int64_t integral = 0;  // milliseconds
};

}  // namespace kovo
