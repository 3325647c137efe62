#pragma once

#include <cstddef>
#include <cstdint>

// The records handed to the client's monitor callback; their layout is part of the interface
// (little-endian). Both begin alike: the scheduler writes the two counts of either kind.

struct kovo_monitor_fixed_threads_strategy {
  std::uint64_t totalThroughput;  // bytes per second, like the next two
  std::uint64_t uploadThroughput;
  std::uint64_t downloadThroughput;
  std::uint32_t workProviderCount;
  std::uint32_t workerCount;
  std::uint32_t targetThreadCount;
  std::uint32_t reserved[3];
};

struct kovo_monitor_adaptive_strategy {
  std::uint64_t totalThroughput;  // bytes per second, like the next two
  std::uint64_t uploadThroughput;
  std::uint64_t downloadThroughput;
  std::uint32_t workProviderCount;
  std::uint32_t workerCount;
  std::uint32_t currentThreadCount;
  std::int32_t reservedValueB;
  std::uint64_t reservedCountA;
  std::uint32_t lastReason;
  std::int32_t lastDecision;  // -1 decrease, 0 neutral, 1 increase
};

static_assert(sizeof(kovo_monitor_fixed_threads_strategy) == 48);
static_assert(sizeof(kovo_monitor_adaptive_strategy) == 56);
static_assert(offsetof(kovo_monitor_fixed_threads_strategy, workProviderCount) == 24);
static_assert(offsetof(kovo_monitor_fixed_threads_strategy, workerCount) == 28);
static_assert(offsetof(kovo_monitor_adaptive_strategy, workProviderCount) == 24);
static_assert(offsetof(kovo_monitor_adaptive_strategy, workerCount) == 28);

namespace kovo {

constexpr std::uint32_t kMonitorKindNone = 0;
constexpr std::uint32_t kMonitorKindAdaptive = 1;
constexpr std::uint32_t kMonitorKindFixed = 2;

}  // namespace kovo
