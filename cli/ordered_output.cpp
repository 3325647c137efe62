#include "ordered_output.h"

#include <limits.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <utility>

#include "failure.h"

namespace kovo::cli {

OrderedOutput::OrderedOutput(int descriptor, std::uint64_t first, std::uint64_t mostKept)
    : _descriptor(descriptor), _first(first), _mostKept(mostKept), _next(first) {
  struct stat facts {};
  const bool isFile = ::fstat(descriptor, &facts) == 0 && S_ISREG(facts.st_mode);
  // A pipe that is ready takes this much without blocking, so that Ctrl-C is never waited out.
  _mostAtOnce = isFile ? std::size_t{1} << 20 : PIPE_BUF;
}

std::uint64_t OrderedOutput::bytesWritten() const {
  const std::lock_guard<std::mutex> hold(_mutex);
  return _next - _first;
}

void OrderedOutput::stopWaiting(bool ending) {
  {
    const std::lock_guard<std::mutex> hold(_mutex);
    if (ending) _ending = true;
    ++_releases;
  }
  _changed.notify_all();
}

bool OrderedOutput::hasRoom(std::uint64_t offset, std::size_t size) const {
  return offset <= _next || _kept + size <= _mostKept;
}

void OrderedOutput::waitForRoom(std::unique_lock<std::mutex>& hold, std::uint64_t offset,
                                std::size_t size) {
  constexpr std::chrono::seconds kPatience{5};
  const std::uint64_t releases = _releases;
  while (!hasRoom(offset, size) && !_ending && releases == _releases) {
    const std::uint64_t before = _next;
    // When nobody brings the front, everybody may be waiting here for a range that only one of them
    // could fetch: better to keep more than was meant.
    if (_changed.wait_for(hold, kPatience) == std::cv_status::timeout && !_writing &&
        before == _next) {
      return;
    }
  }
}

void OrderedOutput::write(std::uint64_t offset, const std::uint8_t* data, std::size_t size) {
  std::unique_lock<std::mutex> hold(_mutex);
  waitForRoom(hold, offset, size);
  if (_ending || offset + size <= _next) return;
  if (offset > _next || _writing) {
    std::vector<std::uint8_t>& kept = _early[offset];
    if (kept.size() >= size) return;
    _kept += size - kept.size();
    kept.assign(data, data + size);
    return;
  }
  _writing = true;
  const std::size_t skipped = _next - offset;
  data += skipped;
  size -= skipped;
  std::vector<std::uint8_t> block;
  bool good = true;
  int problem = 0;
  while (good && size != 0) {
    hold.unlock();
    errno = 0;
    good = writeOut(data, size);
    problem = errno;
    hold.lock();
    if (!good) break;
    _next += size;
    size = 0;
    while (size == 0 && !_early.empty() && _early.begin()->first <= _next) {
      const std::uint64_t start = _early.begin()->first;
      block = std::move(_early.begin()->second);
      _early.erase(_early.begin());
      _kept -= block.size();
      if (start + block.size() <= _next) continue;
      data = block.data() + (_next - start);
      size = start + block.size() - _next;
    }
    _changed.notify_all();
  }
  _writing = false;
  const bool ending = std::exchange(_ending, _ending || !good);
  _changed.notify_all();
  if (good || ending) return;
  throw Failure(ExitCode::kFile, problem == EPIPE
                                     ? "the program that reads the standard output has ended"
                                     : std::string("cannot write to the standard output: ") +
                                           std::strerror(problem));
}

bool OrderedOutput::writeOut(const std::uint8_t* data, std::size_t size) {
  while (size != 0) {
    struct pollfd ready {
      _descriptor, POLLOUT, 0
    };
    if (::poll(&ready, 1, 100) <= 0) {
      const std::lock_guard<std::mutex> hold(_mutex);
      if (_ending) return false;
      continue;
    }
    const ssize_t written = ::write(_descriptor, data, std::min(size, _mostAtOnce));
    if (written < 0) {
      if (errno == EINTR || errno == EAGAIN) continue;
      return false;
    }
    data += written;
    size -= static_cast<std::size_t>(written);
  }
  return true;
}

}  // namespace kovo::cli
