#pragma once

#include <atomic>
#include <memory>
#include <string>

#include "transfers/transfer.h"

namespace kovo {

// One request with the client's verb, its body from the request-body callbacks and its response to
// the response-body callback.
class SerialTransfer : public Transfer {
 public:
  SerialTransfer(KovoEngine& engine, TransferContext* context, kovo_http_verb verb, std::string url,
                 kovo_chunking_mode mode, std::uint32_t priority, bool gzipWanted,
                 std::shared_ptr<ClientCallbackHandler> callbackHandler);

  Work* getNextWork() override;
  bool onFinish(Work* work) override;
  bool isFinished() const override;
  std::uint32_t getAvailableWorkCount() const override;
  bool isSerial() const override { return true; }
  bool isChunkingAllowed() const override { return false; }
  kovo_chunk_type getChunkType() const override { return KOVO_CHUNK_TYPE_SINGLE; }
  bool isCancellable() const override;
  void onPauseDrained() override;
  void processResponseHeader(Request& request, const Header& header) override;

 private:
  enum State : std::uint32_t {
    Initial = 0,
    TRANSFER_STATE_WAITING_RESPONSE = 1,
    TRANSFER_STATE_FINISHING = 2,
    Finished = 3,
  };

  std::unique_ptr<Work> makeRequest();
  void notifyFinal();

  std::atomic<std::uint32_t> _state{Initial};  // changed under _mainLock
  const kovo_http_verb _verb;
};

}  // namespace kovo
