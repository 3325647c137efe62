#pragma once

#include <string>

#include "body/data_sink.h"

namespace kovo {

// Collects a response body as a text (error documents, protocol answers). Bytes beyond kCapacity
// are dropped, since a server decides how much it sends.
class StringStreamSink : public DataSink {
 public:
  static constexpr std::size_t kCapacity = 16 * 1024 * 1024;

  void write(const std::uint8_t* data, std::size_t size) override;
  void getContents(std::string& contents) const override { contents = _contents; }

 private:
  std::string _contents;
};

}  // namespace kovo
