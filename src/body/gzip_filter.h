#pragma once

#include <memory>

#include "body/data_filter.h"
#include "body/zip_stream_handler.h"

namespace kovo {

// Runs a body through a zlib stream.
class GzipFilter : public DataFilter {
 public:
  explicit GzipFilter(std::unique_ptr<ZipStreamHandler> handler);

  bool filter(DataBlock& input, FilteredDataHandler& handler) override;
  bool flush(FilteredDataHandler& handler) override;

 private:
  const std::unique_ptr<ZipStreamHandler> _zipStream;
};

}  // namespace kovo
