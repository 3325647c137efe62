#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <set>
#include <string>

#include "transfers/background_task.h"
#include "transfers/chunked_transfer.h"
#include "transfers/upload_resume_claim.h"

namespace kovo {

// Uploads a file, or a body from the client's request-body callback, through the upload protocol
// that the client chooses: an initialisation request, parts in parallel and a finalisation request,
// or one single request, as the protocol's factory says.
//
// An interrupted upload of a file resumes: the stored initialisation answer is used again when the
// file's checksum and modification time show that it is the same, and when URL, protocol and part
// size are; parts recorded as stored are skipped. A completed upload is one version of the file: a
// file that changes meanwhile ends in the error callback.
//
// What takes time (file facts, checksum, resume database) runs as a task of its own or around a
// request, on a worker, without a lock.
class ChunkedUpload : public ChunkedTransfer {
 public:
  // filePath is empty for an upload from memory.
  ChunkedUpload(KovoEngine& engine, TransferContext* context, kovo_http_verb verb, std::string url,
                std::string filePath, kovo_chunking_mode mode, std::uint32_t priority,
                std::shared_ptr<ClientCallbackHandler> callbackHandler);
  ~ChunkedUpload() override;

  bool isChunkingAllowed() const override;
  kovo_chunk_type getChunkType() const override;
  std::uint32_t filterHttpStatus(std::uint32_t status) override;
  bool isCancellable() const override;
  bool handleResponseHeaders(bool errorRecorded) override;
  void processResponseHeader(Request& request, const Header& header) override;
  void setError(std::shared_ptr<KovoError> error) override;
  bool shouldRetryChunk(std::int32_t chunkNumber, std::shared_ptr<KovoError> error,
                        std::shared_ptr<KovoHTTPError> httpError) override;

 protected:
  std::uint64_t getChunkSize() const override;
  void setIntermediateStatus(std::uint32_t status) override;
  std::unique_ptr<Work> createWork() override;
  std::uint32_t getTransferHttpStatus() const override { return _httpStatus; }
  State transferInitFinished(Work& work) override;
  State firstChunkFinished() override;
  State chunkFinished(Work* work) override;
  State lastChunkFinished() override;
  void settle(Outcome outcome) override;

 private:
  bool isFromMemory() const { return getFilePath().empty(); }
  bool isChunkingEnabled() const;
  bool isResumabilityAllowed() const;
  State stateAfterParts();

  // Units of work (chunked_upload.cpp).
  std::unique_ptr<Work> createInitialWork();
  std::unique_ptr<Work> createPartWork(State stateAfter);
  std::unique_ptr<Work> createSingleWork();
  std::unique_ptr<Work> createWorkForFinalise();
  std::unique_ptr<Work> createTask(const char* name, void (ChunkedUpload::*task)());
  std::unique_ptr<Work> wrap(std::unique_ptr<Request> request, bool (ChunkedUpload::*before)(),
                             kovo_error (ChunkedUpload::*after)(Request&));

  // Run by a worker, without a lock (upload_steps.cpp).
  void prepare();
  bool readInput();
  void computeChecksum();
  void startChecksum();
  kovo_error initialisationHasRun(Request& request);
  bool reportSkippedParts();
  kovo_error partHasRun(Request& request);
  kovo_error singleHasRun(Request& request);
  bool checkBeforeFinalising();
  kovo_error finalisationHasRun(Request& request);
  void processInitialisationResponse(const std::string& body, std::uint32_t status);
  void storeResponse();
  std::string getInitResponseFromCache();
  std::string resumeTarget() const;
  // A request whose answer counts as a failure although nobody has reported it so far.
  kovo_error reportRefusal(Request& request, const std::string& body);
  // Records an error and returns true when the file is not what it was at the start.
  bool checkFileModification();
  bool hasFileChanged(std::shared_ptr<KovoError>& queryError) const;
  std::string fileModifiedText() const;

  const kovo_http_verb _verb;
  UploadResumeClaim _claim;  // taken by the preparation, released when the upload settles

  // Written by the preparation, which runs alone, and constant afterwards.
  std::uint64_t _fileSize = 0;
  std::int64_t _fileModificationTime = 0;
  bool _resumingUpload = false;
  std::set<std::int32_t> _uploadedChunks;
  std::atomic<std::uint64_t> _skippedBytes{0};  // not yet reported as progress
  std::atomic<bool> _prepared{false};
  // This upload keeps rows in the resume database.
  std::atomic<bool> _resumable{false};

  // Written by a task or the initialisation request, which run alone.
  std::string _md5Sum;
  std::string _initialisationAnswer;  // until it is stored
  std::atomic<bool> _initialised{false};
  std::atomic<bool> _finishNow{false};
  // The checksum is computed while parts are on their way, since nothing needs it earlier. Stopped
  // before the finalisation: a little is then left to send, and nothing to be gained from resuming.
  bool _checksumDue = false;
  BackgroundTask _checksum;

  std::uint32_t _partCount = 0;  // used under _mainLock and by the finalisation
  std::atomic<bool> _isFinalizationRequestConstructed{false};
  std::atomic<std::uint32_t> _httpStatus{0};

  RecursiveLock _wordsLock;
  // What the server said to a control request that failed.
  std::string _serverWords KOVO_GUARDED_BY(_wordsLock);
};

}  // namespace kovo
