#include "body/file_sink.h"

#include <utility>

#include "callbacks/client_callback_handler.h"
#include "core/abstract_transfer.h"
#include "platform/platform_file_stream.h"

namespace kovo {

FileSink::FileSink(AbstractTransfer& transfer,
                   std::shared_ptr<ClientCallbackHandler> callbackHandler, std::string path)
    : _transfer(transfer), _callbackHandler(std::move(callbackHandler)), _path(std::move(path)) {}

FileSink::~FileSink() = default;

void FileSink::write(const std::uint8_t* data, std::size_t size) {
  _transfer.writeData(_position, data, size, stream());
  advance(size);
}

void FileSink::reset() {
  _position = 0;
  retract();
}

void FileSink::discard() {
  retract();
}

const std::shared_ptr<PlatformFileOStream>& FileSink::stream() {
  if (!_stream) {
    _stream = std::make_shared<PlatformFileOStream>();
    // The transfer has created the file; one that is gone is an error, not a new file with holes.
    _stream->open(_path, PlatformFileOStream::OpenExisting);
  }
  return _stream;
}

void FileSink::advance(std::size_t size) {
  if (_stream->isOpen()) {
    _position += size;
    _reported += size;
    _callbackHandler->invokeProgressCallback(size);
  }
}

void FileSink::retract() {
  if (_reported != 0) {
    _callbackHandler->retractProgress(std::exchange(_reported, 0));
  }
}

}  // namespace kovo
