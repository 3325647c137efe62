#pragma once

#include <memory>

#include "body/data_sink.h"
#include "body/gzip_filter.h"

namespace kovo {

// Decodes a compressed body.
class GzipInputFilter : public GzipFilter {
 public:
  using GzipFilter::GzipFilter;
};

// The sink behind an inflating filter.
std::unique_ptr<DataSink> makeGzipFilteredSink(std::unique_ptr<DataSink> sink);

}  // namespace kovo
