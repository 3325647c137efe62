#include "scheduling/stats_sample.h"

#include <algorithm>
#include <cmath>

#include "log/deferred_log.h"
#include "log/kovo_log.h"

namespace kovo {
namespace {

constexpr std::int64_t kEvaluationInterval = 100;
constexpr double kSmoothingWindow = 1500.0;
constexpr double kMaxRatio = 5.0;
constexpr std::int64_t kStep = 10;
constexpr std::int64_t kMaxSleep = 15000;
constexpr const char* kFunction = "kovo::StatsSample::recordChunk";

}  // namespace

StatsSample::StatsSample(Clock& sampleClock)
    : clock(sampleClock), lastTime(sampleClock.nowMilliseconds()) {}

std::int64_t StatsSample::recordChunk(std::uint64_t count) {
  const std::int64_t now = clock.nowMilliseconds();
  bytes += count;
  const std::int64_t elapsed = now - lastTime;
  if (elapsed < 0) {
    // The wall clock was set back: measure from here, or the sleep would stay as it is until the
    // clock has caught up.
    lastTime = now;
    return sleepMs;
  }
  if (elapsed < kEvaluationInterval) {
    return sleepMs;
  }
  const double milliseconds = static_cast<double>(elapsed);
  const double speed = static_cast<double>(bytes) / (milliseconds / 1000.0);
  lastTime = now;
  bytes = 0;
  const double weight = milliseconds < kSmoothingWindow ? milliseconds / kSmoothingWindow : 1.0;
  averageSpeed = (1.0 - weight) * averageSpeed + weight * speed;
  KOVO_LOG(KOVO_LOG_INFO, kFunction,
           "StatsSample Recording speed: %f average Speed: %f Target Speed: %llu", speed,
           averageSpeed, static_cast<unsigned long long>(targetSpeed));
  if (targetSpeed == 0) {
    return sleepMs;
  }
  const double ratio = std::min(averageSpeed / static_cast<double>(targetSpeed), kMaxRatio);
  if (ratio > 1.0) {
    sleepMs = std::max(sleepMs, kStep);
    integral += kStep;
  } else if (ratio < 1.0) {
    integral = std::max<std::int64_t>(integral - kStep, 0);
  }
  sleepMs = std::llround(static_cast<double>(sleepMs) * ratio) + integral;
  KOVO_LOG(KOVO_LOG_INFO, kFunction,
           "StatsSample changing sleep by Adjustment: %f Integral: %lld result: %lld", ratio,
           static_cast<long long>(integral), static_cast<long long>(sleepMs));
  if (sleepMs < 0) {
    sleepMs = 0;
  } else if (sleepMs > kMaxSleep) {
    KOVO_LOG(KOVO_LOG_INFO, kFunction, "Sleep time is too long, shorten to 15000 milliseconds");
    sleepMs = kMaxSleep;
  }
  return sleepMs;
}

}  // namespace kovo
