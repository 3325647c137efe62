#pragma once

#include <atomic>

#include "scheduling/kovo_stats_aggregator.h"

namespace kovo::test {

/** Reports the averages a test sets. */
class FakeStatsAggregator : public KOVOStatsAggregator {
 public:
  std::atomic<std::uint64_t> upload{0};
  std::atomic<std::uint64_t> download{0};

  void recordChunk(std::uint64_t, bool, const Interrupt*) override {}
  std::uint64_t getUploadAverageSpeed() override { return upload; }
  std::uint64_t getDownloadAverageSpeed() override { return download; }
  std::uint64_t getUploadTargetSpeed() override { return 0; }
  std::uint64_t getDownloadTargetSpeed() override { return 0; }
  kovo_error setTargetDataRates(std::uint64_t, std::uint64_t) override { return KOVO_ERROR_NONE; }
};

}  // namespace kovo::test
