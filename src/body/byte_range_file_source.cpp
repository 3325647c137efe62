#include "body/byte_range_file_source.h"

#include <utility>

#include "core/assertion.h"
#include "log/kovo_log.h"

namespace kovo {

ByteRangeFileSource::ByteRangeFileSource(std::shared_ptr<ClientCallbackHandler> callbackHandler,
                                         const KovoRange& transferRange, std::string path,
                                         const KovoRange& chunkRange)
    : FileSource(std::move(callbackHandler), std::move(path)), _range(chunkRange) {
  KOVO_ASSERT(fileSize() > 0, "length > 0");
  const auto start = static_cast<std::uint64_t>(_range.start);
  const auto length = static_cast<std::uint64_t>(_range.length);
  if (start >= fileSize() && length == 0) {
    KOVO_LOG(KOVO_LOG_WARN, "kovo::ByteRangeFileSource::ByteRangeFileSource",
             "Bad range specified for resource of length: %llu, startRange: %llu length %llu",
             static_cast<unsigned long long>(fileSize()), static_cast<unsigned long long>(start),
             static_cast<unsigned long long>(length));
  }
  const std::uint64_t end = fileSize() != 0 ? start + length : 0;
  setBounds(start, end);
  _isFirstChunk = _range.start == transferRange.start;
  _isLastChunk = end == static_cast<std::uint64_t>(transferRange.start + transferRange.length);
}

std::uint64_t ByteRangeFileSource::getContentLength() {
  return static_cast<std::uint64_t>(_range.length);
}

}  // namespace kovo
