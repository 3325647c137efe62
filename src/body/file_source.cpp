#include "body/file_source.h"

#include <algorithm>
#include <utility>

#include "callbacks/client_callback_handler.h"
#include "core/assertion.h"
#include "platform/kovo_utils.h"

namespace kovo {
namespace {

// Others may read the file meanwhile.
constexpr std::uint32_t kShareForReading = 1;

}  // namespace

FileSource::FileSource(std::shared_ptr<ClientCallbackHandler> callbackHandler, std::string path)
    : _callbackHandler(std::move(callbackHandler)), _path(std::move(path)) {
  if (_stream.open(_path, kShareForReading)) {
    _fileSize = _stream.Length();
    _end = _fileSize;
  } else {
    recordFailure();
  }
}

FileSource::~FileSource() = default;

bool FileSource::read(std::uint8_t* dataBuffer, std::size_t maxDataLength, std::size_t& bytesRead) {
  bytesRead = 0;
  if (_position >= _end) {
    return true;
  }
  if (!_stream.isOpen()) {
    recordFailure();
    return false;
  }
  _stream.Seek(_position);
  const std::uint64_t wanted = std::min<std::uint64_t>(maxDataLength, _end - _position);
  std::uint64_t count = 0;
  if (!_stream.ReadBlock(dataBuffer, wanted, &count)) {
    recordFailure();
    return false;
  }
  bytesRead = static_cast<std::size_t>(count);
  _position += count;
  if (count != 0) {
    _reported += count;
    _callbackHandler->invokeProgressCallback(count);
  }
  return true;
}

std::string FileSource::getContentType() const {
  return "application/octet-stream";
}

std::string FileSource::getMD5Checksum() const {
  return WinKOVOUtils::getMD5Checksum(_path);
}

int FileSource::getError(std::string& message) const {
  message = _errorMessage;
  return _errorCode;
}

void FileSource::discard() {
  if (_reported != 0) {
    _callbackHandler->retractProgress(std::exchange(_reported, 0));
  }
}

void FileSource::setBounds(std::uint64_t start, std::uint64_t end) {
  _start = start;
  _position = start;
  _end = end;
}

void FileSource::recordFailure() {
  _errorMessage = "Invalid input stream";
  _errorCode = KOVO_ERROR_READ_STREAM_FAILURE;
  if (_stream.lastErrorKind != FileErrorKind::None) {
    _errorCode = static_cast<int>(
        mapFileError(_stream.lastErrorKind, KOVO_ERROR_READ_STREAM_FAILURE, _errorMessage));
  }
}

}  // namespace kovo
