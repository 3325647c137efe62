#pragma once

#include <cstddef>
#include <cstdint>

namespace kovo::test {

/** What this process holds at the moment, as the system counts it, and what it has allocated. */
struct ProcessFigures {
  size_t descriptors = 0;
  size_t threads = 0;
  uint64_t residentBytes = 0;
  uint64_t heapBytes = 0;

  static ProcessFigures now();
};

}  // namespace kovo::test
