#pragma once

#include <cstdint>
#include <string>

namespace kovo {

// The size in bytes up to which the sync service takes a file whole: one figure for the process,
// written by engines and by servers' answers alike, read when an upload starts.
struct UploadThreshold {
  static constexpr std::uint64_t kInitial = 5242880;

  static std::uint64_t get();
  static void set(std::uint64_t threshold);
  // The decimal value of a response header; anything else changes nothing.
  static void setFromHeader(const std::string& value);
};

}  // namespace kovo
