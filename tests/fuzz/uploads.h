#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "body/data_source.h"

namespace kovo::test {

/** A body that is only ever asked how long it is. */
class SizedSource : public DataSource {
 public:
  explicit SizedSource(std::uint64_t size) : _size(size) {}
  bool hasMoreData() const override { return false; }
  bool read(std::uint8_t*, std::size_t, std::size_t& bytesRead) override {
    bytesRead = 0;
    return true;
  }
  std::uint64_t getBytesRead() const override { return 0; }
  std::uint64_t getContentLength() override { return _size; }
  std::string getContentType() const override { return "text/plain"; }
  bool isFirstChunk() const override { return true; }
  bool isLastChunk() const override { return true; }
  std::string getMD5Checksum() const override { return "md5=="; }
  int getError(std::string&) const override { return 0; }

 private:
  const std::uint64_t _size;
};

inline std::string contentsOf(DataSource& source) {
  std::string text;
  std::vector<std::uint8_t> buffer(333);
  std::size_t count = 0;
  while (source.hasMoreData() && source.read(buffer.data(), buffer.size(), count) && count > 0) {
    text.append(reinterpret_cast<const char*>(buffer.data()), count);
  }
  return text;
}

}  // namespace kovo::test
