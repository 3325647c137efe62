#pragma once

#include <string>

#include "body/data_source.h"

namespace kovo {

// A fixed text as a request body.
class StringSource : public DataSource {
 public:
  StringSource(std::string text, std::string contentType);

  bool hasMoreData() const override { return _position < _text.size(); }
  bool read(std::uint8_t* dataBuffer, std::size_t maxDataLength, std::size_t& bytesRead) override;
  std::uint64_t getBytesRead() const override { return _position; }
  std::uint64_t getContentLength() override { return _text.size(); }
  std::string getContentType() const override { return _contentType; }
  bool isFirstChunk() const override { return true; }
  bool isLastChunk() const override { return true; }
  std::string getMD5Checksum() const override;
  int getError(std::string& message) const override;

 private:
  const std::string _text;
  const std::string _contentType;
  std::size_t _position = 0;
};

}  // namespace kovo
