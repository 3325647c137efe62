#pragma once

#include <zlib.h>

#include <boost/noncopyable.hpp>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "body/data_filter.h"

namespace kovo {

// One zlib stream with its output buffer. Closed after the first failure; a closed stream fails
// every further write and flush.
class ZipStreamHandler : boost::noncopyable {
 public:
  // bufferSize > 0. Subclasses open the stream in their constructor and close it in their
  // destructor.
  explicit ZipStreamHandler(std::size_t bufferSize);
  virtual ~ZipStreamHandler() = default;

  void open();
  void close();
  // One step: consumes from input, and sets output to the bytes it produced, valid until the next
  // call. False: the failure is logged and the stream closed.
  bool write(DataBlock& input, DataBlock& output);
  bool flush(DataBlock& output);

  // Compressed bytes have been consumed, and the last of them belong to a stream without its end.
  bool isTruncated() const { return _phase == Phase::Inside && _stepped; }

 protected:
  virtual int process() = 0;
  virtual int end() = 0;
  virtual int init() = 0;

  z_stream _stream{};
  bool _gzip = false;

 private:
  // Where the input stands. A gzip file may hold several members one after the other; whatever else
  // follows the end of a stream is padding.
  enum class Phase { Inside, AfterEnd, AfterFirstMagicByte, Padding };

  enum class Operation { Write, Flush };

  bool step(Operation operation, DataBlock& output);
  // Always false.
  bool fail(Operation operation, int status);
  std::string statusText(int status) const;
  bool skipBetweenMembers(DataBlock& input);

  std::vector<std::uint8_t> _output;
  bool _closed = true;
  bool _stepped = false;
  Phase _phase = Phase::Inside;
};

}  // namespace kovo
