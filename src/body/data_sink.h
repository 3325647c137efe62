#pragma once

#include <boost/noncopyable.hpp>
#include <cstddef>
#include <cstdint>
#include <string>

#include "core/byte_block.h"

namespace kovo {

// Receives the body of one HTTP response; used by one thread at a time.
class DataSink : boost::noncopyable {
 public:
  virtual ~DataSink() = default;
  // The body is complete.
  virtual void finish() {}
  virtual void write(const std::uint8_t* data, std::size_t size) = 0;
  // The bytes collected so far; only memory-collecting sinks change the text.
  virtual void getContents(std::string& contents) const { static_cast<void>(contents); }
  // Rewinds to offset 0 before a new body is written.
  virtual void reset() {}

  // As write; a sink that keeps the bytes may take the block and leave another one in its place.
  virtual void writeBlock(ByteBlock& block, std::size_t size) { write(block.data(), size); }
  // The body will not be completed: what was kept of it is to be dropped.
  virtual void discard() {}
};

}  // namespace kovo
