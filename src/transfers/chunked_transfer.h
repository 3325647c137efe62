#pragma once

#include <atomic>
#include <list>
#include <memory>
#include <string>

#include "transfers/transfer.h"

namespace kovo {

class Request;

// Moves one resource as many numbered byte ranges in parallel: the state machine that sequences
// control requests and chunk requests, the ranges still to send, the retry of a failed chunk
// through a pause, and exactly one final callback.
class ChunkedTransfer : public Transfer {
 public:
  Work* getNextWork() override;
  bool onFinish(Work* work) override;
  bool isFinished() const override;
  std::uint32_t getAvailableWorkCount() const override;
  void onPauseDrained() override;
  void getChunkHeaders(const std::string& url, std::int32_t chunkNumber,
                       HeaderList& headers) override;
  kovo_chunk_type getChunkType() const override { return KOVO_CHUNK_TYPE_CHUNK; }
  bool shouldRetryChunk(std::int32_t chunkNumber, std::shared_ptr<KovoError> error,
                        std::shared_ptr<KovoHTTPError> httpError) override;
  void setRange(const KovoRange& range) override;

 protected:
  // Even: a request is due; odd: waiting for it.
  enum State : std::uint32_t {
    init = 0,
    waiting_init = 1,
    first_chunk = 2,
    waiting_first_chunk = 3,
    transferring_chunks = 4,
    finishing_chunks = 5,
    last_chunk = 6,
    waiting_last_chunk = 7,
    finalise = 8,
    waiting_finalise = 9,
    single_request = 10,
    waiting_single_request = 11,
    failing = 13,
    finished = 14,
  };

  ChunkedTransfer(KovoEngine& engine, TransferContext* context, std::string url,
                  kovo_chunking_mode mode, std::uint32_t priority,
                  std::shared_ptr<ClientCallbackHandler> callbackHandler);

  // Cuts the part of the range after the first request into numbered ranges.
  virtual void createRanges(bool firstRangeTaken);
  virtual bool hasRangesRemaining() const;
  virtual bool popNextRange(KovoNumberedRange& range);
  virtual bool hasAvailableRanges() const;
  // Puts a range back in number order.
  virtual void requeueRange(const KovoNumberedRange& range);
  virtual std::uint64_t getChunkSize() const;
  virtual void makeFirstRange(KovoNumberedRange& range);
  virtual std::uint32_t getNumberOfChunksRemaining() const;
  virtual State finishWithErrorOrCancel();
  // Told the status of every successful finished request.
  virtual void setIntermediateStatus(std::uint32_t status) = 0;
  // Makes the unit for the current state and moves the state on; null when there is none.
  virtual std::unique_ptr<Work> createWork() = 0;
  virtual std::uint32_t getTransferHttpStatus() const = 0;
  virtual State transferInitFinished(Work& work) = 0;
  virtual State firstChunkFinished() = 0;
  virtual State chunkFinished(Work* work) = 0;
  virtual State lastChunkFinished() = 0;

  // Housekeeping that belongs to an outcome (files, resume rows); runs without any lock, right
  // before the final callback, once.
  virtual void settle(Outcome outcome) { static_cast<void>(outcome); }
  // What may take its time; runs without any lock right after the final callback, unless the engine
  // is being destroyed.
  virtual void tidyUp(Outcome outcome) { static_cast<void>(outcome); }
  // Runs without any lock before the paused callback.
  virtual void settlePause() {}

  std::unique_ptr<Work> createWorkForBadState();
  // Delivers completion, or what finishWithErrorOrCancel does; the result is finished.
  State finish();
  // Asserts that nothing is missing; an error recorded here turns completion into failure.
  virtual void verifyComplete() {}

  State getState() const { return static_cast<State>(_state.load()); }
  void setState(State state) { _state = state; }
  std::int64_t getNextOffset() const { return _nextOffset; }
  void setNextOffset(std::int64_t offset) { _nextOffset = offset; }
  void clearRanges();
  bool isFailed(const Work& work) const;
  // Counts bytes that an earlier run has brought over as progress.
  void reportPresent(std::uint64_t bytes);

  kovo_server_type _serverType = KOVO_SERVER_TYPE_DEFAULT;

 private:
  void changeStateOnFinish(Work& work);
  bool failedWorkWhilePausing(Work* work);
  void requeueFailedWork(Work& work);
  void completePause();
  State getResumeState();
  void notifyFinal(Outcome outcome);
  void recordException(const char* operation, const char* what);

  mutable RecursiveLock _rangeLock;
  // Put back, or of unknown length; before everything that is not cut yet.
  std::list<KovoNumberedRange> _ranges KOVO_GUARDED_BY(_rangeLock);
  // The rest, which is cut as it is taken: what a server says of a size costs no memory.
  KovoNumberedRange _uncut KOVO_GUARDED_BY(_rangeLock);
  std::int64_t _cutSize KOVO_GUARDED_BY(_rangeLock) = 0;
  std::atomic<std::uint32_t> _state{init};  // changed under _mainLock
  std::int64_t _nextOffset = 0;             // used under _mainLock, or before submission
};

}  // namespace kovo
