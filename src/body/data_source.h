#pragma once

#include <boost/noncopyable.hpp>
#include <cstddef>
#include <cstdint>
#include <string>

namespace kovo {

// Produces the body of one HTTP request; used by one thread at a time.
class DataSource : boost::noncopyable {
 public:
  virtual ~DataSource() = default;
  virtual bool hasMoreData() const = 0;
  // Copies up to maxDataLength bytes and sets bytesRead; false: failed, getError tells why.
  virtual bool read(std::uint8_t* dataBuffer, std::size_t maxDataLength,
                    std::size_t& bytesRead) = 0;
  virtual std::uint64_t getBytesRead() const = 0;
  // 0 means that there is no body.
  virtual std::uint64_t getContentLength() = 0;
  virtual std::string getContentType() const = 0;
  // The body begins at the start, or ends at the end, of the transfer's range.
  virtual bool isFirstChunk() const = 0;
  virtual bool isLastChunk() const = 0;
  // Base64; empty for memory and null sources.
  virtual std::string getMD5Checksum() const = 0;
  // The last failure as a kovo_error, 0 for none, and its message.
  virtual int getError(std::string& message) const = 0;

  // The bytes delivered so far have not arrived and will be sent again, or never: progress that was
  // reported for them is taken back.
  virtual void discard() {}
};

}  // namespace kovo
