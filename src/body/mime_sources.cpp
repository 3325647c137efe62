#include "body/mime_sources.h"

#include <algorithm>
#include <utility>

#include "core/assertion.h"

namespace kovo {

std::size_t MimeSources::Frame::take(std::uint8_t* buffer, std::size_t capacity) {
  const std::size_t count = std::min(capacity, text.size() - position);
  std::fill_n(buffer, capacity, std::uint8_t{0});
  std::copy_n(text.data() + position, count, buffer);
  position += count;
  return count;
}

MimeSources::MimeSources(std::unique_ptr<DataSource> source, std::string filePath)
    : _source(std::move(source)), _filePath(std::move(filePath)) {
  KOVO_ASSERT(_source, "_source");
}

MimeSources::~MimeSources() = default;

bool MimeSources::hasMoreData() const {
  return prefix().hasMore() || (!_sourceExhausted && _source->hasMoreData()) || suffix().hasMore();
}

bool MimeSources::read(std::uint8_t* dataBuffer, std::size_t maxDataLength,
                       std::size_t& bytesRead) {
  KOVO_ASSERT(dataBuffer != nullptr, "dataBuffer");
  KOVO_ASSERT(maxDataLength > 0, "maxDataLength > 0");
  bytesRead = 0;
  if (dataBuffer == nullptr) {
    return false;
  }
  if (prefix().hasMore()) {
    bytesRead = _mimePrefix.take(dataBuffer, maxDataLength);
    return true;
  }
  if (!_sourceExhausted) {
    if (!_source->read(dataBuffer, maxDataLength, bytesRead)) {
      return false;
    }
    if (bytesRead != 0) {
      return true;
    }
    _sourceExhausted = true;
  }
  if (suffix().hasMore()) {
    bytesRead = _mimeSuffix.take(dataBuffer, maxDataLength);
  }
  return true;
}

std::uint64_t MimeSources::getBytesRead() const {
  return _mimePrefix.position + _source->getBytesRead() + _mimeSuffix.position;
}

std::uint64_t MimeSources::getContentLength() {
  return _source->getContentLength() + prefix().text.size() + suffix().text.size();
}

std::string MimeSources::getContentType() const {
  return "multipart/form-data; boundary=KovoFormBoundaryWIvk2eqVDQmI3XTV";
}

MimeSources::Frame& MimeSources::prefix() const {
  if (!_mimePrefix.built) {
    _mimePrefix.text = createMimePrefix();
    _mimePrefix.built = true;
  }
  return _mimePrefix;
}

MimeSources::Frame& MimeSources::suffix() const {
  if (!_mimeSuffix.built) {
    _mimeSuffix.text = createMimeSuffix();
    _mimeSuffix.built = true;
  }
  return _mimeSuffix;
}

}  // namespace kovo
