#include "http/source_request_body.h"

#include <algorithm>
#include <utility>

namespace kovo {

SourceRequestBody::SourceRequestBody(std::unique_ptr<DataSource>& source, std::uint64_t length,
                                     std::function<std::unique_ptr<DataSource>()> remake)
    : _source(source), _length(length), _remake(std::move(remake)) {}

bool SourceRequestBody::read(std::uint8_t* buffer, std::size_t capacity, std::size_t& bytesRead) {
  bytesRead = 0;
  if (_failure) {
    return false;
  }
  // The exchange calls from inside a C library.
  try {
    return pull(buffer, capacity, bytesRead);
  } catch (const std::exception& exception) {
    return fail(KOVO_ERROR_READ_STREAM_FAILURE, exception.what());
  } catch (...) {
    return fail(KOVO_ERROR_READ_STREAM_FAILURE, "Data Source failed");
  }
}

bool SourceRequestBody::rewind() {
  if (_sent == 0) {
    return true;
  }
  try {
    _source->discard();
    _source = _remake();
    _sent = 0;
    std::string message;
    if (_source->getError(message) != KOVO_ERROR_NONE) {
      return failForSource();
    }
    if (_source->getContentLength() != _length) {
      return fail(KOVO_ERROR_NOT_ENOUGH_DATA, "Data Source changed its length while it was sent");
    }
    return true;
  } catch (const std::exception& exception) {
    return fail(KOVO_ERROR_READ_STREAM_FAILURE, exception.what());
  } catch (...) {
    return fail(KOVO_ERROR_READ_STREAM_FAILURE, "Data Source failed");
  }
}

bool SourceRequestBody::pull(std::uint8_t* buffer, std::size_t capacity, std::size_t& bytesRead) {
  const auto wanted = static_cast<std::size_t>(std::min<std::uint64_t>(capacity, _length - _sent));
  if (wanted == 0) {
    return true;
  }
  if (!_source->read(buffer, wanted, bytesRead)) {
    bytesRead = 0;
    return failForSource();
  }
  if (bytesRead == 0) {
    return fail(KOVO_ERROR_NOT_ENOUGH_DATA,
                "Data Source incomplete: " + std::to_string(_source->getBytesRead()) +
                    " bytes received from " + std::to_string(_length) + " expected.\n");
  }
  _sent += bytesRead;
  return true;
}

bool SourceRequestBody::fail(kovo_error code, std::string message) {
  _failure = makeKovoError(code, std::move(message));
  return false;
}

bool SourceRequestBody::failForSource() {
  std::string message;
  const int code = _source->getError(message);
  if (code == KOVO_ERROR_NONE) {
    return fail(KOVO_ERROR_READ_STREAM_FAILURE, "Data Source failed");
  }
  return fail(static_cast<kovo_error>(code), std::move(message));
}

}  // namespace kovo
