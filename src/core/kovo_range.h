#pragma once

#include <cstdint>

namespace kovo {

// Part of a resource: length bytes from start on; a length of 0 means to the end, or not known yet.
struct KovoRange {
  KovoRange() = default;
  KovoRange(std::int64_t rangeStart, std::int64_t rangeLength)
      : start(rangeStart), length(rangeLength) {}
  KovoRange(const KovoRange&) = default;
  KovoRange& operator=(const KovoRange&) = default;
  virtual ~KovoRange() = default;

  std::int64_t start = 0;
  std::int64_t length = 0;
};

// A range with its 0-based chunk number; numbers rise with start. -1: not a chunk.
struct KovoNumberedRange : KovoRange {
  KovoNumberedRange() = default;
  KovoNumberedRange(std::int64_t rangeStart, std::int64_t rangeLength, std::int32_t chunkNumber)
      : KovoRange(rangeStart, rangeLength), number(chunkNumber) {}

  std::int32_t number = 0;
};

}  // namespace kovo
