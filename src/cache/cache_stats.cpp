#include "cache/cache_stats.h"

#include "log/kovo_log.h"

namespace kovo {
namespace {

constexpr std::uint16_t kAccessesPerLine = 500;

}  // namespace

void CacheStats::hit() {
  ++_hits;
  logAndResetIfNeeded();
}

void CacheStats::miss() {
  ++_misses;
  logAndResetIfNeeded();
}

void CacheStats::logAndResetIfNeeded() {
  if (++_accesses < kAccessesPerLine) {
    return;
  }
  KOVO_LOG(KOVO_LOG_INFO, "kovo::CacheStats::logAndResetIfNeeded",
           "CacheStats: %d hits and %d misses in last %d accesses", _hits, _misses, _accesses);
  _hits = 0;
  _misses = 0;
  _accesses = 0;
}

}  // namespace kovo
