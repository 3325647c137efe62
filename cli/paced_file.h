#pragma once

#include <chrono>
#include <cstdint>
#include <string>

namespace kovo::cli {

// The file of an upload in one request, handed out no faster than a rate. Used by one thread of the
// engine at a time.
class PacedFile {
 public:
  // Throws Failure when the file cannot be read.
  PacedFile(const std::string& path, std::uint64_t bytesPerSecond);
  PacedFile(const PacedFile&) = delete;
  PacedFile& operator=(const PacedFile&) = delete;
  ~PacedFile();

  std::uint64_t size() const { return _size; }
  // Waits until bytes are due, then reads at most so many of them. Throws Failure, also for a file
  // that has changed since it was opened.
  std::uint64_t read(std::uint64_t offset, std::uint8_t* buffer, std::uint64_t most);

 private:
  using Clock = std::chrono::steady_clock;

  const std::string _path;
  const std::uint64_t _bytesPerSecond;
  int _descriptor = -1;
  std::uint64_t _size = 0;
  std::int64_t _modified = 0;  // nanoseconds since 1970
  Clock::time_point _due = Clock::now();
};

}  // namespace kovo::cli
