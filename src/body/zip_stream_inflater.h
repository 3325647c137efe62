#pragma once

#include "body/zip_stream_handler.h"

namespace kovo {

// Inflates gzip and zlib streams; the header tells which.
class ZipStreamInflater : public ZipStreamHandler {
 public:
  explicit ZipStreamInflater(std::size_t bufferSize);
  ~ZipStreamInflater() override;

 protected:
  int process() override;
  int end() override;
  int init() override;
};

}  // namespace kovo
