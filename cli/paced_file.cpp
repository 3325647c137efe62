#include "paced_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <thread>

#include "failure.h"
#include "safe_text.h"

namespace kovo::cli {

namespace {

// A tenth of a second's worth at a time: smooth on the line, and soon over when the user
// interrupts.
constexpr std::uint64_t kPiecesPerSecond = 10;
constexpr std::chrono::milliseconds kLongestLead(100);

std::int64_t modificationTime(const struct stat& facts) {
  return facts.st_mtim.tv_sec * 1'000'000'000 + facts.st_mtim.tv_nsec;
}

}  // namespace

PacedFile::PacedFile(const std::string& path, std::uint64_t bytesPerSecond)
    : _path(path),
      _bytesPerSecond(bytesPerSecond),
      _descriptor(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY)) {
  struct stat facts {};
  if (_descriptor < 0 || ::fstat(_descriptor, &facts) != 0) {
    throw Failure(ExitCode::kFile, "cannot read " + printable(path) + ": " + std::strerror(errno));
  }
  _size = static_cast<std::uint64_t>(facts.st_size);
  _modified = modificationTime(facts);
}

PacedFile::~PacedFile() {
  ::close(_descriptor);
}

std::uint64_t PacedFile::read(std::uint64_t offset, std::uint8_t* buffer, std::uint64_t most) {
  std::this_thread::sleep_until(_due);
  const std::uint64_t piece = std::max<std::uint64_t>(_bytesPerSecond / kPiecesPerSecond, 1);
  ssize_t count = 0;
  do {
    count = ::pread(_descriptor, buffer, std::min(most, piece), static_cast<off_t>(offset));
  } while (count < 0 && errno == EINTR);
  struct stat facts {};
  if (count < 0 || ::fstat(_descriptor, &facts) != 0) {
    throw Failure(ExitCode::kFile, "cannot read " + printable(_path) + ": " + std::strerror(errno));
  }
  if (modificationTime(facts) != _modified || static_cast<std::uint64_t>(facts.st_size) != _size) {
    throw Failure(ExitCode::kFile, printable(_path) + " changed while it was sent");
  }
  // What a slow connection has not used is not made up for.
  const auto took = std::chrono::nanoseconds(static_cast<std::int64_t>(
      static_cast<double>(count) * 1e9 / static_cast<double>(_bytesPerSecond)));
  _due = std::max(_due, Clock::now() - kLongestLead) + took;
  return static_cast<std::uint64_t>(count);
}

}  // namespace kovo::cli
