#include "body/memory_source.h"

#include <algorithm>
#include <utility>

#include "callbacks/client_callback_handler.h"
#include "core/assertion.h"

namespace kovo {

MemorySource::MemorySource(std::shared_ptr<ClientCallbackHandler> callbackHandler)
    : _callbackHandler(std::move(callbackHandler)) {
  KOVO_ASSERT(_callbackHandler, "_callbackHandler");
  _callbackHandler->invokeRequestBodyContentLengthCallback(&_length);
}

MemorySource::~MemorySource() = default;

bool MemorySource::read(std::uint8_t* dataBuffer, std::size_t maxDataLength,
                        std::size_t& bytesRead) {
  KOVO_ASSERT(dataBuffer != nullptr, "dataBuffer");
  KOVO_ASSERT(maxDataLength > 0, "maxDataLength > 0");
  bytesRead = 0;
  // A client that counts bytes it did not write sends zeros, never what the memory held before.
  std::fill_n(dataBuffer, maxDataLength, std::uint8_t{0});
  std::uint64_t count = 0;
  _callbackHandler->invokeRequestBodyCallback(_offset, dataBuffer, &count, maxDataLength);
  if (count > maxDataLength) {
    _errorCode = KOVO_ERROR_TOO_MUCH_DATA;
    return false;
  }
  bytesRead = static_cast<std::size_t>(count);
  _offset += count;
  if (count != 0) {
    _reported += count;
    _callbackHandler->invokeProgressCallback(count);
  }
  return true;
}

std::string MemorySource::getContentType() const {
  return "application/octet-stream";
}

int MemorySource::getError(std::string& message) const {
  message.clear();
  if (_errorCode != KOVO_ERROR_NONE) {
    message = "The request body callback reported more bytes than it was asked for";
  }
  return _errorCode;
}

void MemorySource::discard() {
  if (_reported != 0) {
    _callbackHandler->retractProgress(std::exchange(_reported, 0));
  }
}

}  // namespace kovo
