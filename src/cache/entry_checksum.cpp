#include "cache/entry_checksum.h"

#include <cstring>

namespace kovo {
namespace {

constexpr std::uint64_t kOdd1 = 0x9E3779B97F4A7C15ULL;
constexpr std::uint64_t kOdd2 = 0xC2B2AE3D27D4EB4FULL;
constexpr std::size_t kLanes = 4;  // independent chains keep the multiplier busy
constexpr std::size_t kStride = kLanes * sizeof(std::uint64_t);

std::uint64_t rotate(std::uint64_t value, int bits) {
  return (value << bits) | (value >> (64 - bits));
}

std::uint64_t mix(std::uint64_t state, std::uint64_t word) {
  return rotate(state + word * kOdd2, 31) * kOdd1;
}

std::uint64_t digest(std::uint64_t seed, const void* data, std::size_t size) {
  const auto* bytes = static_cast<const std::uint8_t*>(data);
  std::uint64_t lanes[kLanes] = {seed, seed + kOdd1, seed ^ kOdd2, ~seed};
  std::size_t offset = 0;
  for (; size - offset >= kStride; offset += kStride) {
    std::uint64_t words[kLanes];
    std::memcpy(words, bytes + offset, kStride);
    for (std::size_t lane = 0; lane < kLanes; ++lane) {
      lanes[lane] = mix(lanes[lane], words[lane]);
    }
  }
  if (offset < size) {
    std::uint64_t words[kLanes] = {};
    std::memcpy(words, bytes + offset, size - offset);
    for (std::size_t lane = 0; lane < kLanes; ++lane) {
      lanes[lane] = mix(lanes[lane], words[lane]);
    }
  }
  std::uint64_t result = size;
  for (const std::uint64_t lane : lanes) {
    result = mix(result ^ (lane >> 32), lane);
  }
  return result ^ (result >> 29);
}

}  // namespace

std::uint64_t entryChecksum(const std::string& url, const CacheableResponse& response,
                            const void* data, std::size_t size) {
  std::uint64_t state = mix(kOdd1, response.firstByte);
  for (const std::string* text : {&url, &response.etag, &response.lastModified}) {
    state = digest(state, text->data(), text->size());
  }
  return digest(state, data, size);
}

}  // namespace kovo
