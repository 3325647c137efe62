#pragma once

#include <kovo/kovo.h>

#include <memory>
#include <string>

#include "body/data_source.h"

namespace kovo {

class ClientCallbackHandler;

// A request body that the client's request-body callback supplies; its length is asked for at
// construction.
class MemorySource : public DataSource {
 public:
  explicit MemorySource(std::shared_ptr<ClientCallbackHandler> callbackHandler);
  ~MemorySource() override;

  bool hasMoreData() const override { return _offset < _length; }
  bool read(std::uint8_t* dataBuffer, std::size_t maxDataLength, std::size_t& bytesRead) override;
  std::uint64_t getBytesRead() const override { return _offset; }
  std::uint64_t getContentLength() override { return _length; }
  std::string getContentType() const override;
  bool isFirstChunk() const override { return true; }
  bool isLastChunk() const override { return true; }
  std::string getMD5Checksum() const override { return {}; }
  int getError(std::string& message) const override;
  void discard() override;

 private:
  const std::shared_ptr<ClientCallbackHandler> _callbackHandler;
  std::uint64_t _offset = 0;
  std::uint64_t _length = 0;
  std::uint64_t _reported = 0;
  int _errorCode = KOVO_ERROR_NONE;
};

}  // namespace kovo
