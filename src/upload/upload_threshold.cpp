#include "upload/upload_threshold.h"

#include <atomic>
#include <charconv>

namespace kovo {
namespace {

std::atomic<std::uint64_t> thresholdInForce{UploadThreshold::kInitial};

}  // namespace

std::uint64_t UploadThreshold::get() {
  return thresholdInForce.load(std::memory_order_relaxed);
}

void UploadThreshold::set(std::uint64_t threshold) {
  thresholdInForce.store(threshold, std::memory_order_relaxed);
}

void UploadThreshold::setFromHeader(const std::string& value) {
  const std::size_t first = value.find_first_not_of(" \t");
  if (first == std::string::npos) {
    return;
  }
  const std::size_t last = value.find_last_not_of(" \t");
  std::uint64_t threshold = 0;
  const char* const end = value.data() + last + 1;
  const auto result = std::from_chars(value.data() + first, end, threshold);
  if (result.ec == std::errc() && result.ptr == end) {
    set(threshold);
  }
}

}  // namespace kovo
