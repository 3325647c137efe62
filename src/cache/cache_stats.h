#pragma once

#include <cstdint>

namespace kovo {

// Counts hits and misses, and logs them every 500 accesses. Serialised by its user.
class CacheStats {
 public:
  void hit();
  void miss();

 private:
  void logAndResetIfNeeded();

  std::uint16_t _hits = 0;
  std::uint16_t _misses = 0;
  std::uint16_t _accesses = 0;
};

}  // namespace kovo
