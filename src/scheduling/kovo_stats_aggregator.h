#pragma once

#include <kovo/kovo.h>

#include <cstdint>

#include "platform/clock.h"

namespace kovo {

// Measures throughput per direction and holds it to the client's target rates by putting the
// reporting threads to sleep. Thread-safe; never calls back into its users.
class KOVOStatsAggregator {
 public:
  KOVOStatsAggregator() = default;
  KOVOStatsAggregator(const KOVOStatsAggregator&) = delete;
  KOVOStatsAggregator& operator=(const KOVOStatsAggregator&) = delete;
  virtual ~KOVOStatsAggregator() = default;

  // Counts bytes just moved; may sleep on the calling thread, no lock held, until interrupt (may be
  // null) says to give up.
  virtual void recordChunk(std::uint64_t bytes, bool upload,
                           const Interrupt* interrupt = nullptr) = 0;
  // Bytes per second, smoothed.
  virtual std::uint64_t getUploadAverageSpeed() = 0;
  virtual std::uint64_t getDownloadAverageSpeed() = 0;
  // Bytes per second, 0 = no limit.
  virtual std::uint64_t getUploadTargetSpeed() = 0;
  virtual std::uint64_t getDownloadTargetSpeed() = 0;
  // KiB per second, 0 = no limit; always 0 (KOVO_ERROR_NONE).
  virtual kovo_error setTargetDataRates(std::uint64_t uploadRate, std::uint64_t downloadRate) = 0;
};

}  // namespace kovo
