#include "body/memory_sink.h"

#include <utility>

#include "callbacks/client_callback_handler.h"

namespace kovo {

MemorySink::MemorySink(std::shared_ptr<ClientCallbackHandler> callbackHandler,
                       std::uint64_t startOffset, bool isProgress)
    : _callbackHandler(std::move(callbackHandler)), _isProgress(isProgress), _offset(startOffset) {}

MemorySink::~MemorySink() = default;

void MemorySink::write(const std::uint8_t* data, std::size_t size) {
  if (data == nullptr || size == 0) {
    return;
  }
  _callbackHandler->invokeResponseBodyCallback(_offset, data, size);
  _offset += size;
  if (_isProgress) {
    _reported += size;
    _callbackHandler->invokeProgressCallback(size);
  }
}

void MemorySink::reset() {
  _offset = 0;
  retract();
}

void MemorySink::discard() {
  retract();
}

void MemorySink::retract() {
  if (_reported != 0) {
    _callbackHandler->retractProgress(std::exchange(_reported, 0));
  }
}

}  // namespace kovo
