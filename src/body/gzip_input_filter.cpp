#include "body/gzip_input_filter.h"

#include <utility>

#include "body/filtered_sink.h"
#include "body/zip_stream_inflater.h"

namespace kovo {
namespace {

// Large enough that one step turns a whole read of compressed bytes into output in most cases, and
// all the memory that a body needs however much it expands.
constexpr std::size_t kOutputBufferSize = 0x100000;

}  // namespace

std::unique_ptr<DataSink> makeGzipFilteredSink(std::unique_ptr<DataSink> sink) {
  return std::make_unique<FilteredSink>(
      std::move(sink),
      std::make_unique<GzipInputFilter>(std::make_unique<ZipStreamInflater>(kOutputBufferSize)));
}

}  // namespace kovo
