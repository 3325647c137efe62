#include "transfers/chunked_upload.h"

#include <utility>

#include "cache/sqlite_resume_cache.h"
#include "core/assertion.h"
#include "core/kovo_settings.h"
#include "http/request.h"
#include "log/kovo_log.h"
#include "transfers/stepped_request.h"
#include "transfers/upload_task.h"

namespace kovo {

ChunkedUpload::ChunkedUpload(KovoEngine& engine, TransferContext* context, kovo_http_verb verb,
                             std::string url, std::string filePath, kovo_chunking_mode mode,
                             std::uint32_t priority,
                             std::shared_ptr<ClientCallbackHandler> callbackHandler)
    : ChunkedTransfer(engine, context, std::move(url), mode, priority, std::move(callbackHandler)),
      _verb(verb) {
  setFilePath(filePath);
  if (SqliteResumeCache* cache = getResumeCache()) {
    cache->clearOutdatedCacheTimer();
  }
}

ChunkedUpload::~ChunkedUpload() {
  _checksum.stop();
}

// --- Chunking and resuming ----------------------------------------------------------------------

bool ChunkedUpload::isChunkingEnabled() const {
  // The client's body callback delivers from the first byte on, so it cannot serve parts.
  if (isFromMemory()) {
    return false;
  }
  const KovoSettings& settings = _engine.getSettings();
  const auto length = static_cast<std::uint64_t>(getRange().length);
  std::uint64_t chunk = settings.chunkSize;
  if (const auto* factory = const_cast<ChunkedUpload*>(this)->getMimeSourceFactory()) {
    chunk = factory->adjustChunkSize(length, chunk);
  }
  return length >= chunk && (_chunkingMode == KOVO_CHUNKING_ALWAYS ||
                             (_chunkingMode == KOVO_CHUNKING_DEFAULT && settings.chunkUploads));
}

bool ChunkedUpload::isChunkingAllowed() const {
  const bool enabled = isChunkingEnabled();
  const auto* factory = const_cast<ChunkedUpload*>(this)->getMimeSourceFactory();
  return factory == nullptr ? enabled : factory->isChunkingSupported(enabled);
}

bool ChunkedUpload::isResumabilityAllowed() const {
  const bool enabled = isChunkingEnabled();
  const bool wanted = _engine.getSettings().tryResumableTransfer;
  KOVO_LOG(KOVO_LOG_INFO, "kovo::ChunkedUpload::isResumabilityAllowed", "tryResumableTransfer : %d",
           wanted);
  KOVO_LOG(KOVO_LOG_INFO, "kovo::ChunkedUpload::isResumabilityAllowed", "chunkingEnabled : %d",
           enabled);
  return wanted && enabled && _engine.getResumeCache() != nullptr;
}

std::uint64_t ChunkedUpload::getChunkSize() const {
  if (isFromMemory() || _chunkingMode == KOVO_CHUNKING_SERIAL ||
      (_chunkingMode == KOVO_CHUNKING_DEFAULT && !_engine.getSettings().chunkUploads)) {
    return static_cast<std::uint64_t>(getRange().length);
  }
  return ChunkedTransfer::getChunkSize();
}

// --- What requests ask --------------------------------------------------------------------------

kovo_chunk_type ChunkedUpload::getChunkType() const {
  const State state = getState();
  switch (state) {
    case waiting_init:
      return KOVO_CHUNK_TYPE_INIT;
    case first_chunk:
    case waiting_first_chunk:
    case transferring_chunks:
    case finishing_chunks:
    case last_chunk:
    case waiting_last_chunk:
      return KOVO_CHUNK_TYPE_CHUNK;
    case waiting_finalise:
      return KOVO_CHUNK_TYPE_FINALISE;
    case waiting_single_request:
      return KOVO_CHUNK_TYPE_SINGLE;
    case failing:
    case finished:
      // A part that was being made ready when another one failed; it will not be sent.
      return KOVO_CHUNK_TYPE_CHUNK;
    default:
      KOVO_LOG(KOVO_LOG_ERROR, "kovo::ChunkedUpload::getChunkType",
               "Unexpected upload state for chunked header selector: %d", static_cast<int>(state));
      KOVO_ASSERT(false, "Unexpected upload state for chunked header selector");
      return KOVO_CHUNK_TYPE_SINGLE;
  }
}

std::uint32_t ChunkedUpload::filterHttpStatus(std::uint32_t status) {
  SqliteResumeCache* cache = getResumeCache();
  if (status >= 401 && status <= 598 && cache != nullptr && !isFromMemory()) {
    KOVO_LOG(KOVO_LOG_ERROR, "kovo::ChunkedUpload::filterHttpStatus",
             "HttpRequest not success %s for file %s", std::to_string(status).c_str(),
             getFilePath().c_str());
    if (_claim.isHeld()) {
      cache->deleteFromCacheUpload(getFilePath());
    }
  }
  ChunkedTransfer::filterHttpStatus(status);
  MimeSourceFactory* factory = getMimeSourceFactory();
  return getState() == waiting_init && factory != nullptr ? factory->filterHttpStatus(status)
                                                          : status;
}

bool ChunkedUpload::isCancellable() const {
  const auto* factory = const_cast<ChunkedUpload*>(this)->getMimeSourceFactory();
  const std::uint32_t responses = getResponsesReceived();
  switch (getState()) {
    case waiting_init:
      return responses == 0 || factory == nullptr || factory->initialisationWillCompleteTransfer();
    case finishing_chunks:
      return factory == nullptr || factory->sendsLastChunkAlone() ||
             factory->isFinalisationNeeded() || responses == 0 || responses < getActiveWorkCount();
    case waiting_last_chunk:
      return factory == nullptr || factory->isFinalisationNeeded() || responses == 0;
    case waiting_finalise:
    case waiting_single_request:
      return responses == 0;
    case failing:
    case finished:
      return false;
    default:
      return true;
  }
}

bool ChunkedUpload::handleResponseHeaders(bool errorRecorded) {
  const auto* factory = getMimeSourceFactory();
  return !errorRecorded && factory != nullptr && factory->isFinalisationNeeded() &&
         getState() != waiting_finalise;
}

void ChunkedUpload::processResponseHeader(Request& request, const Header& header) {
  MimeSourceFactory* factory = getMimeSourceFactory();
  if (factory == nullptr) {
    return;
  }
  // Services name entity tags and request ids in refusals too; such a part is not stored.
  const std::uint32_t status = request.getHttpStatus();
  const bool succeeded = status >= 200 && status <= 299;
  factory->processChunkResponseHeader(succeeded
                                          ? static_cast<std::uint32_t>(request.getRange().number)
                                          : MimeSourceFactory::kNoPart,
                                      header);
}

void ChunkedUpload::setIntermediateStatus(std::uint32_t status) {
  const State state = getState();
  switch (state) {
    case init:
    case failing:
    case finished:
      break;
    case waiting_finalise:
      if (_httpStatus < 400) {
        _httpStatus = status;
      }
      break;
    case waiting_init:
    case first_chunk:
    case waiting_first_chunk:
    case transferring_chunks:
    case finishing_chunks:
    case last_chunk:
    case waiting_last_chunk:
    case finalise:
    case single_request:
    case waiting_single_request:
      if (_httpStatus == 0 || (status != 0 && status < _httpStatus)) {
        _httpStatus = status;
      }
      break;
    default:
      KOVO_LOG(KOVO_LOG_ERROR, "kovo::ChunkedUpload::setIntermediateStatus",
               "ChunkedUpload::setIntermediateStatus: Unexpected state %d",
               static_cast<int>(state));
      break;
  }
}

// --- Units of work ------------------------------------------------------------------------------

std::unique_ptr<Work> ChunkedUpload::createTask(const char* name, void (ChunkedUpload::*task)()) {
  return std::make_unique<UploadTask>([this, name, task] {
    try {
      (this->*task)();
    } catch (const std::exception& exception) {
      setError(
          makeKovoError(KOVO_ERROR_OPERATION_ERROR,
                        std::string(name) + " - Unexpected exception caught: " + exception.what()));
    }
  });
}

std::unique_ptr<Work> ChunkedUpload::wrap(std::unique_ptr<Request> request,
                                          bool (ChunkedUpload::*before)(),
                                          kovo_error (ChunkedUpload::*after)(Request&)) {
  const auto report = [this](const std::exception& exception) {
    setError(makeKovoError(KOVO_ERROR_OPERATION_ERROR,
                           std::string("Unexpected exception caught: ") + exception.what()));
  };
  std::function<bool()> beforeRun;
  if (before != nullptr) {
    beforeRun = [this, before, report] {
      try {
        return (this->*before)();
      } catch (const std::exception& exception) {
        report(exception);
        return false;
      }
    };
  }
  return std::make_unique<SteppedRequest>(
      std::move(request), std::move(beforeRun),
      [this, after, report](Request& finishedRequest) -> kovo_error {
        try {
          return (this->*after)(finishedRequest);
        } catch (const std::exception& exception) {
          report(exception);
          return KOVO_ERROR_OPERATION_ERROR;
        }
      });
}

std::unique_ptr<Work> ChunkedUpload::createWork() {
  switch (getState()) {
    case init:
      if (!_prepared) {
        setState(waiting_init);
        return createTask("prepare", &ChunkedUpload::prepare);
      }
      return createInitialWork();
    case first_chunk:
      return createPartWork(waiting_first_chunk);
    case transferring_chunks:
      if (_checksumDue) {
        _checksumDue = false;
        startChecksum();
      }
      return createPartWork(transferring_chunks);
    case last_chunk:
      return createPartWork(waiting_last_chunk);
    case finalise:
      return createWorkForFinalise();
    case single_request:
      return createSingleWork();
    default:
      return createWorkForBadState();
  }
}

std::unique_ptr<Work> ChunkedUpload::createInitialWork() {
  MimeSourceFactory& factory = *getMimeSourceFactory();
  if (!factory.isInitialisationNeeded(isChunkingAllowed())) {
    return createSingleWork();
  }
  setState(waiting_init);
  return wrap(createRequest(*this, factory.getInitialisationMethod(),
                            factory.getInitialisationUrl(getUrl()), OP_UPLOAD_INITIALISE,
                            getFilePath(), false, _callbackHandler),
              nullptr, &ChunkedUpload::initialisationHasRun);
}

std::unique_ptr<Work> ChunkedUpload::createPartWork(State stateAfter) {
  MimeSourceFactory& factory = *getMimeSourceFactory();
  KovoNumberedRange range;
  bool isLeft = popNextRange(range);
  for (; isLeft && _resumingUpload && _uploadedChunks.count(range.number + 1) != 0;
       isLeft = popNextRange(range)) {
    _skippedBytes += static_cast<std::uint64_t>(range.length);
  }
  if (!isLeft) {
    reportPresent(_skippedBytes.exchange(0));
    // Every part left is stored already: what runs, or a unit that does nothing, ends this phase.
    setState(stateAfter == transferring_chunks ? finishing_chunks : stateAfter);
    return nullptr;
  }
  const std::string url = factory.getChunkUrl(getUrl(), static_cast<std::uint32_t>(range.number),
                                              !hasRangesRemaining());
  auto work = wrap(
      createRangedRequest(*this, _verb, url, isFromMemory() ? OP_UPLOAD_MEMORY : OP_UPLOAD_FILE,
                          getFilePath(), range, true, _callbackHandler),
      &ChunkedUpload::reportSkippedParts, &ChunkedUpload::partHasRun);
  if (stateAfter == transferring_chunks &&
      getNumberOfChunksRemaining() <= (factory.sendsLastChunkAlone() ? 1U : 0U)) {
    stateAfter = finishing_chunks;
  }
  setState(stateAfter);
  return work;
}

std::unique_ptr<Work> ChunkedUpload::createSingleWork() {
  const std::string url =
      getMimeSourceFactory()->getChunkUrl(getUrl(), MimeSourceFactory::kNoPart, true);
  setState(waiting_single_request);
  return wrap(createRequest(*this, _verb, url, isFromMemory() ? OP_UPLOAD_MEMORY : OP_UPLOAD_FILE,
                            getFilePath(), false, _callbackHandler),
              nullptr, &ChunkedUpload::singleHasRun);
}

std::unique_ptr<Work> ChunkedUpload::createWorkForFinalise() {
  MimeSourceFactory& factory = *getMimeSourceFactory();
  auto work = wrap(
      createRequest(*this, factory.getFinalisationMethod(), factory.getFinalisationUrl(getUrl()),
                    OP_UPLOAD_FINALISE, getFilePath(), true, _callbackHandler),
      &ChunkedUpload::checkBeforeFinalising, &ChunkedUpload::finalisationHasRun);
  _isFinalizationRequestConstructed = true;
  setState(waiting_finalise);
  return work;
}

// --- Moving on ----------------------------------------------------------------------------------

ChunkedTransfer::State ChunkedUpload::transferInitFinished(Work&) {
  if (!_initialised) {
    // The preparation has run, or the client wants the initialisation request sent again.
    return init;
  }
  if (_finishNow) {
    return finish();
  }
  if (!isChunkingAllowed()) {
    return single_request;
  }
  createRanges(false);
  _partCount = getNumberOfChunksRemaining();
  return getMimeSourceFactory()->sendsFirstChunkAlone() ? first_chunk : transferring_chunks;
}

ChunkedTransfer::State ChunkedUpload::firstChunkFinished() {
  if (!hasRangesRemaining()) {
    return stateAfterParts();
  }
  return getNumberOfChunksRemaining() > 1 ? transferring_chunks : last_chunk;
}

ChunkedTransfer::State ChunkedUpload::chunkFinished(Work*) {
  const State state = getState();
  KOVO_ASSERT(getActiveWorkCount() > 0, "activeWorkCount > 0");
  if (state != finishing_chunks || getActiveWorkCount() >= 2) {
    return state;
  }
  if (getMimeSourceFactory()->sendsLastChunkAlone()) {
    return last_chunk;
  }
  return hasRangesRemaining() ? state : stateAfterParts();
}

ChunkedTransfer::State ChunkedUpload::lastChunkFinished() {
  return stateAfterParts();
}

ChunkedTransfer::State ChunkedUpload::stateAfterParts() {
  return getMimeSourceFactory()->isFinalisationNeeded() ? finalise : finish();
}

}  // namespace kovo
