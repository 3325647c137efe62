#pragma once

#include <kovo/kovo.h>

#include <memory>
#include <string>

#include "body/data_source.h"
#include "platform/platform_file_stream.h"

namespace kovo {

class ClientCallbackHandler;

// A whole file as a request body. The file is opened once, at construction; its size is taken then,
// and a file that ends earlier while it is read leaves hasMoreData true with nothing to read.
class FileSource : public DataSource {
 public:
  FileSource(std::shared_ptr<ClientCallbackHandler> callbackHandler, std::string path);
  ~FileSource() override;

  bool hasMoreData() const override { return _position < _end; }
  bool read(std::uint8_t* dataBuffer, std::size_t maxDataLength, std::size_t& bytesRead) override;
  std::uint64_t getBytesRead() const override { return _position - _start; }
  std::uint64_t getContentLength() override { return _end; }
  std::string getContentType() const override;
  bool isFirstChunk() const override { return true; }
  bool isLastChunk() const override { return true; }
  std::string getMD5Checksum() const override;
  int getError(std::string& message) const override;
  void discard() override;

 protected:
  // Where reading begins and ends in the file.
  void setBounds(std::uint64_t start, std::uint64_t end);
  std::uint64_t fileSize() const { return _fileSize; }

 private:
  void recordFailure();

  const std::shared_ptr<ClientCallbackHandler> _callbackHandler;
  const std::string _path;
  PlatformFileIStream _stream;
  std::uint64_t _fileSize = 0;
  std::uint64_t _start = 0;
  std::uint64_t _end = 0;
  std::uint64_t _position = 0;
  std::uint64_t _reported = 0;
  int _errorCode = KOVO_ERROR_NONE;
  std::string _errorMessage;
};

}  // namespace kovo
