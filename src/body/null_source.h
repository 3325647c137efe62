#pragma once

#include <string>

#include "body/data_source.h"

namespace kovo {

// No request body.
class NullSource : public DataSource {
 public:
  bool hasMoreData() const override { return false; }
  bool read(std::uint8_t*, std::size_t, std::size_t& bytesRead) override {
    bytesRead = 0;
    return true;
  }
  std::uint64_t getBytesRead() const override { return 0; }
  std::uint64_t getContentLength() override { return 0; }
  std::string getContentType() const override { return "application/octet-stream"; }
  bool isFirstChunk() const override { return true; }
  bool isLastChunk() const override { return true; }
  std::string getMD5Checksum() const override { return {}; }
  int getError(std::string& message) const override {
    message.clear();
    return 0;
  }
};

}  // namespace kovo
