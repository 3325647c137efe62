#pragma once

#include <cstdint>

namespace kovo::cli {

// Where the bytes of a download go that no file of the engine takes. Threads of the engine call
// write at the same time, in any order, and may write bytes again that came before.
class BodySink {
 public:
  BodySink() = default;
  BodySink(const BodySink&) = delete;
  BodySink& operator=(const BodySink&) = delete;
  virtual ~BodySink() = default;

  // offset is the bytes' position in the resource. Throws Failure when they cannot be written.
  virtual void write(std::uint64_t offset, const std::uint8_t* data, std::size_t size) = 0;
  // No thread may wait in write any more: the transfer ends, or repeats a request.
  virtual void stopWaiting(bool /*ending*/) {}
};

}  // namespace kovo::cli
