#pragma once

#include <condition_variable>
#include <cstdint>
#include <map>
#include <mutex>
#include <vector>

#include "body_sink.h"

namespace kovo::cli {

// Writes the bytes of a parallel download to a descriptor in their order. What comes early is kept
// in memory; once that is much, the threads that run ahead wait for the one at the front.
class OrderedOutput : public BodySink {
 public:
  // first: the position of the first byte to come. mostKept: bytes in memory before threads wait.
  OrderedOutput(int descriptor, std::uint64_t first, std::uint64_t mostKept);

  void write(std::uint64_t offset, const std::uint8_t* data, std::size_t size) override;
  void stopWaiting(bool ending) override;

  std::uint64_t bytesWritten() const;

 private:
  bool hasRoom(std::uint64_t offset, std::size_t size) const;
  void waitForRoom(std::unique_lock<std::mutex>& hold, std::uint64_t offset, std::size_t size);
  // Writes without the lock; false when the transfer ends meanwhile.
  bool writeOut(const std::uint8_t* data, std::size_t size);

  const int _descriptor;
  const std::uint64_t _first;
  const std::uint64_t _mostKept;
  std::size_t _mostAtOnce;

  mutable std::mutex _mutex;
  std::condition_variable _changed;
  std::uint64_t _next;
  std::map<std::uint64_t, std::vector<std::uint8_t>> _early;
  std::uint64_t _kept = 0;
  bool _writing = false;
  bool _ending = false;
  // Raised by stopWaiting; a thread that waits for room goes on when it changes.
  std::uint64_t _releases = 0;
};

}  // namespace kovo::cli
