#pragma once

#include <memory>

#include "body/data_sink.h"

namespace kovo {

class ClientCallbackHandler;

// Delivers a response body to the client's response-body callback, and counts it as progress where
// it is what the transfer is for.
class MemorySink : public DataSink {
 public:
  MemorySink(std::shared_ptr<ClientCallbackHandler> callbackHandler, std::uint64_t startOffset,
             bool isProgress);
  ~MemorySink() override;

  void write(const std::uint8_t* data, std::size_t size) override;
  void reset() override;
  void discard() override;

 private:
  void retract();

  const std::shared_ptr<ClientCallbackHandler> _callbackHandler;
  const bool _isProgress;
  std::uint64_t _offset;
  std::uint64_t _reported = 0;
};

}  // namespace kovo
