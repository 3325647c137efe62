#pragma once

#include <memory>
#include <string>

#include "body/data_sink.h"

namespace kovo {

class AbstractTransfer;
class ClientCallbackHandler;
class PlatformFileOStream;

// A response body for a whole file: every block goes straight to the transfer's writeData. The
// file must exist; it is opened with the first block.
class FileSink : public DataSink {
 public:
  // transfer outlives the sink.
  FileSink(AbstractTransfer& transfer, std::shared_ptr<ClientCallbackHandler> callbackHandler,
           std::string path);
  ~FileSink() override;

  void write(const std::uint8_t* data, std::size_t size) override;
  void reset() override;
  void discard() override;

 protected:
  AbstractTransfer& transfer() { return _transfer; }
  // Opened on first use.
  const std::shared_ptr<PlatformFileOStream>& stream();
  // Counts bytes that were handed to the transfer, provided that the stream is open.
  void advance(std::size_t size);

  std::uint64_t _position = 0;

 private:
  void retract();

  AbstractTransfer& _transfer;
  const std::shared_ptr<ClientCallbackHandler> _callbackHandler;
  const std::string _path;
  std::shared_ptr<PlatformFileOStream> _stream;
  std::uint64_t _reported = 0;
};

}  // namespace kovo
