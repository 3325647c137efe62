#include "body/gzip_filter.h"

#include <utility>

#include "log/kovo_log.h"

namespace kovo {

GzipFilter::GzipFilter(std::unique_ptr<ZipStreamHandler> handler)
    : _zipStream(std::move(handler)) {}

bool GzipFilter::filter(DataBlock& input, FilteredDataHandler& handler) {
  while (input.size != 0) {
    DataBlock output;
    if (!_zipStream->write(input, output)) {
      return false;
    }
    if (output.size != 0) {
      handler.handle(output.data, output.size);
    }
  }
  return true;
}

bool GzipFilter::flush(FilteredDataHandler& handler) {
  DataBlock output;
  bool success = _zipStream->flush(output);
  while (output.size != 0) {
    handler.handle(output.data, output.size);
    success = _zipStream->flush(output);
  }
  if (success && _zipStream->isTruncated()) {
    KOVO_LOG(KOVO_LOG_WARN, "kovo::GzipFilter::flush",
             "The compressed body ends before the end of its stream");
    return false;
  }
  return success;
}

}  // namespace kovo
