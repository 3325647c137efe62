#pragma once

#include <kovo/kovo.h>

#include <chrono>
#include <cstdint>
#include <map>
#include <optional>
#include <random>
#include <string>
#include <utility>

namespace kovo::cli {

// One failed request of a transfer.
struct RequestFailure {
  kovo_chunk_type type = KOVO_CHUNK_TYPE_CHUNK;
  std::uint32_t number = 0;
  std::uint32_t code = 0;
  std::uint32_t httpStatus = 0;  // 0: no answer came
  std::string message;
};

// Whether a failed request is sent again, and after which pause. Not thread-safe.
class RetryPolicy {
 public:
  explicit RetryPolicy(std::uint32_t retriesPerRequest);

  // The pause before the next attempt, or nothing when there is to be none. serverSeen: some
  // request of the transfer was answered. retryAfter: what the server asked for, 0 if nothing.
  std::optional<std::chrono::milliseconds> next(const RequestFailure& failure, bool serverSeen,
                                                std::chrono::seconds retryAfter);

 private:
  const std::uint32_t _retries;
  std::map<std::pair<kovo_chunk_type, std::uint32_t>, std::uint32_t> _attempts;
  std::minstd_rand _random;
};

}  // namespace kovo::cli
