// What an upload does on a worker's thread, without a lock, before, around and after its requests.

#include <exception>
#include <utility>

#include "body/linux_datasources_cross_platform.h"
#include "cache/sqlite_resume_cache.h"
#include "core/kovo_settings.h"
#include "http/request.h"
#include "log/kovo_log.h"
#include "platform/kovo_utils.h"
#include "transfers/chunked_upload.h"
#include "upload/mime_source_factories.h"
#include "upload/secret_redaction.h"

namespace kovo {
namespace {

// From this size on the checksum is computed while parts are sent, if nothing needs it before:
// 64 MiB take about a tenth of a second.
constexpr std::uint64_t kLongToHash = 64 * 1024 * 1024;

// Failures whose cause may be that the file is no longer what it was.
bool isSourceFailure(kovo_error code) {
  return code == KOVO_ERROR_NOT_ENOUGH_DATA || code == KOVO_ERROR_TOO_MUCH_DATA ||
         code == KOVO_ERROR_READ_STREAM_FAILURE;
}

}  // namespace

// --- Preparation --------------------------------------------------------------------------------

void ChunkedUpload::prepare() {
  _serverType = static_cast<kovo_server_type>(_callbackHandler->invokeSetServerTypeCallback());
  if (!readInput()) {
    return;
  }
  SqliteResumeCache* cache = getResumeCache();
  // The factory comes before anything that asks for the client's headers, which it filters.
  setMimeSourceFactory(createMimeSourceFactory(_serverType, cache, getFilePath(),
                                               _engine.getSettings().tryResumableTransfer,
                                               _engine.getMultipartUploadThreshold()));
  MimeSourceFactory& factory = *getMimeSourceFactory();
  const bool claimed = !isFromMemory() && _claim.acquire(cache, getFilePath());
  const bool needsInitialisation = factory.isInitialisationNeeded(isChunkingAllowed());
  _resumable = claimed && needsInitialisation && isResumabilityAllowed();

  std::string stored;
  if (_resumable) {
    cache->getResponse(getFilePath(), stored);
  }
  bool needsChecksum = _resumable;
  if (!isFromMemory() && needsInitialisation && !needsChecksum) {
    getRequestHeaders();  // the client may have given the checksum
    needsChecksum = factory.isChecksumNeeded(_fileSize);
  }
  if (needsChecksum) {
    if (stored.empty() && _fileSize > kLongToHash && !factory.isChecksumNeeded(_fileSize)) {
      _checksumDue = true;
    } else {
      computeChecksum();
      if (isCancelled()) {
        return;
      }
      factory.offerComputedChecksum(_md5Sum);
    }
  }
  if (_md5Sum.empty() && !_checksumDue) {
    _resumable = false;  // nothing could prove that the file is the same
  }
  if (_resumable) {
    factory.setResumeTarget(resumeTarget());
    stored = getInitResponseFromCache();
  } else {
    factory.disableResume();
  }
  if (_resumable && !stored.empty()) {
    KOVO_LOG(KOVO_LOG_WARN, "kovo::ChunkedUpload::createInitialWork",
             "Skip initialisation url for file : %s", getFilePath().c_str());
    factory.setFileChecksum(_md5Sum);
    processInitialisationResponse(stored, 202);
  }
  _prepared = true;
}

bool ChunkedUpload::readInput() {
  if (isFromMemory()) {
    _callbackHandler->invokeRequestBodyContentLengthCallback(&_fileSize);
  } else {
    std::shared_ptr<KovoError> error;
    if (!getFileStat(getFilePath(), _fileSize, _fileModificationTime, error)) {
      setError(error);
      return false;
    }
  }
  setExpectedLength(_fileSize);
  return true;
}

void ChunkedUpload::computeChecksum() {
  const Interrupt interrupt = [this] { return isCancelled(); };
  LinuxDatasourcesCrossPlatform sources;
  sources.openFile(_callbackHandler, getFilePath());
  _md5Sum = sources.getMD5Checksum(&interrupt);
}

void ChunkedUpload::startChecksum() {
  // Costs the upload its resumability and nothing else.
  const auto failed = [this](const std::exception& exception) {
    KOVO_LOG(KOVO_LOG_WARN, "kovo::ChunkedUpload::startChecksum", "%s for file %s",
             exception.what(), getFilePath().c_str());
  };
  try {
    _checksum.start("kovo-checksum", [this, failed](const std::function<bool()>& isStopped) {
      const Interrupt interrupt = [this, &isStopped] { return isStopped() || isCancelled(); };
      try {
        LinuxDatasourcesCrossPlatform sources;
        sources.openFile(_callbackHandler, getFilePath());
        _md5Sum = sources.getMD5Checksum(&interrupt);
        storeResponse();
      } catch (const std::exception& exception) {
        failed(exception);
      }
    });
  } catch (const std::exception& exception) {
    failed(exception);  // no thread to be had
  }
}

// --- Resume database ----------------------------------------------------------------------------

std::string ChunkedUpload::resumeTarget() const {
  return std::to_string(_serverType) + '\n' + std::to_string(_verb) + '\n' +
         std::to_string(getChunkSize()) + '\n' + getUrl();
}

std::string ChunkedUpload::getInitResponseFromCache() {
  static constexpr char kName[] = "kovo::ChunkedUpload::getInitResponseFromCache";
  SqliteResumeCache& cache = *getResumeCache();
  const std::string path = getFilePath();
  std::string response;
  cache.getResponse(path, response);
  if (response.empty()) {
    KOVO_LOG(KOVO_LOG_INFO, kName,
             "Amazon s3 credentials not in sqliteResumeTransfer cache for file : %s", path.c_str());
    cache.deleteFromCacheUpload(path);
    return {};
  }
  std::string md5;
  cache.getMd5Sum(path, md5);
  KOVO_LOG(KOVO_LOG_INFO, kName, "Md5Sum for file %s from database %s : ", path.c_str(),
           md5.c_str());
  std::int64_t uploaded = 0;
  cache.getUploadedDate(path, uploaded);
  std::uint64_t size = 0;
  std::int64_t modificationTime = 0;
  std::shared_ptr<KovoError> error;
  if (getFileStat(path, size, modificationTime, error) && modificationTime <= uploaded &&
      !md5.empty() && md5 == _md5Sum && cache.isUploadTarget(path, resumeTarget())) {
    _resumingUpload = true;
    cache.getChunksUploaded(path, _uploadedChunks);
    KOVO_LOG(KOVO_LOG_WARN, kName, "%ld chunks that are already uploaded for filepath %s",
             static_cast<long>(_uploadedChunks.size()), path.c_str());
    return response;
  }
  cache.deleteFromCacheUpload(path);
  return {};
}

void ChunkedUpload::storeResponse() {
  if (!_resumable || _initialisationAnswer.empty() || _md5Sum.empty()) {
    return;
  }
  SqliteResumeCache& cache = *getResumeCache();
  cache.setUploadTarget(getFilePath(), resumeTarget());
  cache.insertResponse(getFilePath(), _initialisationAnswer, _md5Sum);
  _initialisationAnswer.clear();
}

void ChunkedUpload::settle(Outcome outcome) {
  _checksum.stop();
  SqliteResumeCache* cache = getResumeCache();
  if (_claim.isHeld() && cache != nullptr) {
    const bool resumable = _resumable && isResumabilityAllowed();
    const bool keep =
        outcome == Outcome::Cancelled && resumable && !_isFinalizationRequestConstructed;
    if (!keep) {
      static constexpr char kName[] = "kovo::ChunkedUpload::~ChunkedUpload";
      KOVO_LOG(KOVO_LOG_WARN, kName, "Delete the sqliteResumeTransfer cache for file : %s",
               getFilePath().c_str());
      KOVO_LOG(KOVO_LOG_WARN, kName, "wasCancelled : %d", isCancelled());
      KOVO_LOG(KOVO_LOG_WARN, kName, "wasCancelledDueToError : %d", isCancelledDueToError());
      KOVO_LOG(KOVO_LOG_WARN, kName, "isResumabilityAllowed : %d", resumable);
      KOVO_LOG(KOVO_LOG_WARN, kName, "_isFinalizationRequestConstructed : %d",
               _isFinalizationRequestConstructed.load());
      cache->deleteFromCacheUpload(getFilePath());
    }
  }
  _claim.release();
}

// --- After requests -----------------------------------------------------------------------------

kovo_error ChunkedUpload::initialisationHasRun(Request& request) {
  if (isCancelled() || request.getErrorCode() != KOVO_ERROR_NONE) {
    return KOVO_ERROR_NONE;  // reported already, or to be sent again
  }
  std::string body;
  request.getResponseBody(body);
  if (getMimeSourceFactory()->initialisationWillCompleteTransfer()) {
    if (!request.isComplete()) {
      return reportRefusal(request, body);
    }
    if (checkFileModification()) {
      return KOVO_ERROR_FILE_MODIFIED;
    }
  }
  processInitialisationResponse(body, request.getHttpStatus());
  if (!hasError() && !_finishNow) {
    _initialisationAnswer = body;
    storeResponse();
  }
  return KOVO_ERROR_NONE;
}

void ChunkedUpload::processInitialisationResponse(const std::string& body, std::uint32_t status) {
  bool finishNow = false;
  if (!getMimeSourceFactory()->processInitialisationResponse(status, body, finishNow)) {
    setError(
        makeKovoError(KOVO_ERROR_OPERATION_ERROR,
                      "Failed to process upload initialisation response: " + redactSecrets(body)));
    finishNow = true;
  }
  _finishNow = finishNow;
  _initialised = true;
}

bool ChunkedUpload::reportSkippedParts() {
  // Before the part's own progress: a report soon after another one is left out.
  if (const std::uint64_t bytes = _skippedBytes.exchange(0); bytes != 0) {
    _callbackHandler->invokeProgressCallback(bytes);
  }
  return true;
}

kovo_error ChunkedUpload::partHasRun(Request& request) {
  if (isCancelled() || request.isComplete() || request.getErrorCode() != KOVO_ERROR_NONE) {
    return KOVO_ERROR_NONE;
  }
  return reportRefusal(request, {});
}

kovo_error ChunkedUpload::singleHasRun(Request& request) {
  // A status other than success is an answer here, and for the client to judge.
  if (!isCancelled() && request.isComplete() && checkFileModification()) {
    return KOVO_ERROR_FILE_MODIFIED;
  }
  return KOVO_ERROR_NONE;
}

bool ChunkedUpload::checkBeforeFinalising() {
  _checksum.stop();
  if (!isCancelled() && checkFileModification()) {
    return false;
  }
  KOVO_LOG(KOVO_LOG_INFO, "kovo::ChunkedUpload::createWorkForFinalise",
           "Finalization request constructed for file : %s", getFilePath().c_str());
  return true;
}

kovo_error ChunkedUpload::finalisationHasRun(Request& request) {
  if (isCancelled()) {
    return KOVO_ERROR_NONE;
  }
  std::string body;
  request.getResponseBody(body);
  if (!request.isComplete()) {
    const bool reported = request.getErrorCode() != KOVO_ERROR_NONE;
    return reported ? kovo_error{KOVO_ERROR_NONE} : reportRefusal(request, body);
  }
  MimeSourceFactory& factory = *getMimeSourceFactory();
  if (!factory.acceptsFinalisation(body)) {
    return reportRefusal(request, body);
  }
  if (!factory.holdsAllParts(_partCount)) {
    setError(makeKovoError(KOVO_ERROR_CHUNK_RETRY_FAILED,
                           "Kovo Error Chunk failed with Error: the server has not named every "
                           "part it stored"));
    return KOVO_ERROR_CHUNK_RETRY_FAILED;
  }
  return KOVO_ERROR_NONE;
}

// --- Failures -----------------------------------------------------------------------------------

kovo_error ChunkedUpload::reportRefusal(Request& request, const std::string& body) {
  const std::uint32_t status = request.getHttpStatus();
  const std::int32_t number = request.getRange().number;
  auto httpError = makeKovoHTTPError(status, std::to_string(status));
  httpError->details = body;
  if (shouldRetryChunk(
          number,
          makeKovoError(KOVO_ERROR_CHUNK_HTTP_ERROR, "Kovo Error Chunk failed with HTTP Error"),
          httpError)) {
    KOVO_LOG(KOVO_LOG_WARN, "kovo::ChunkedUpload::reportRefusal",
             "Chunk %d failed - Retrying. HTTPCode: %d HTTPMessage: %s", number,
             static_cast<int>(status), httpError->message.c_str());
    return KOVO_ERROR_CHUNK_HTTP_ERROR;
  }
  setError(makeKovoError(KOVO_ERROR_CHUNK_RETRY_FAILED, "Kovo Error Chunk failed with Error"));
  return KOVO_ERROR_CHUNK_RETRY_FAILED;
}

bool ChunkedUpload::shouldRetryChunk(std::int32_t chunkNumber, std::shared_ptr<KovoError> error,
                                     std::shared_ptr<KovoHTTPError> httpError) {
  std::shared_ptr<KovoError> queryError;
  if (isSourceFailure(error->code) && hasFileChanged(queryError)) {
    return false;  // sent again, the parts would be of two versions
  }
  const State state = getState();
  if (httpError->httpStatus != 0 && (state == waiting_init || state == waiting_finalise)) {
    ScopedLock guard(_wordsLock);
    _serverWords = httpError->message;
    if (!httpError->details.empty()) {
      _serverWords += ": " + redactSecrets(httpError->details);
    }
  }
  const bool retry =
      ChunkedTransfer::shouldRetryChunk(chunkNumber, std::move(error), std::move(httpError));
  if (retry) {
    ScopedLock guard(_wordsLock);
    _serverWords.clear();
  }
  return retry;
}

void ChunkedUpload::setError(std::shared_ptr<KovoError> error) {
  std::shared_ptr<KovoError> queryError;
  if (isSourceFailure(error->code) && hasFileChanged(queryError)) {
    error = queryError != nullptr ? queryError
                                  : makeKovoError(KOVO_ERROR_FILE_MODIFIED, fileModifiedText());
  } else if (error->code == KOVO_ERROR_CHUNK_RETRY_FAILED) {
    // A control request runs alone, so these are its words.
    ScopedLock guard(_wordsLock);
    if (!_serverWords.empty()) {
      error = makeKovoError(error->code, error->message + ": " + _serverWords);
      _serverWords.clear();
    }
  }
  ChunkedTransfer::setError(std::move(error));
}

// --- The file -----------------------------------------------------------------------------------

bool ChunkedUpload::hasFileChanged(std::shared_ptr<KovoError>& queryError) const {
  if (isFromMemory() || !_prepared) {
    return false;
  }
  std::uint64_t size = 0;
  std::int64_t modificationTime = 0;
  if (!getFileStat(getFilePath(), size, modificationTime, queryError)) {
    return true;
  }
  return size != _fileSize ||
         !KOVOUtils::datesAreWithinTwoSeconds(modificationTime, _fileModificationTime);
}

bool ChunkedUpload::checkFileModification() {
  std::shared_ptr<KovoError> queryError;
  if (!hasFileChanged(queryError)) {
    return false;
  }
  setError(queryError != nullptr ? queryError
                                 : makeKovoError(KOVO_ERROR_FILE_MODIFIED, fileModifiedText()));
  return true;
}

std::string ChunkedUpload::fileModifiedText() const {
  return "Detected a file modification during upload: " + getFilePath();
}

}  // namespace kovo
