#include "transfers/chunked_download.h"

#include <algorithm>
#include <utility>

#include "cache/sqlite_resume_cache.h"
#include "core/assertion.h"
#include "core/kovo_settings.h"
#include "core/null_work.h"
#include "http/kovo_http_utils.h"
#include "http/request.h"
#include "log/kovo_log.h"
#include "platform/kovo_utils.h"
#include "transfers/decimal.h"
#include "transfers/stepped_request.h"

namespace kovo {
namespace {

// An error with this code leaves the partial file where it is.
constexpr kovo_error kKeepsPartialFile = 100050;

}  // namespace

ChunkedDownload::ChunkedDownload(KovoEngine& engine, TransferContext* context, std::string url,
                                 kovo_chunking_mode mode, std::uint32_t priority,
                                 std::shared_ptr<ClientCallbackHandler> callbackHandler)
    : ChunkedTransfer(engine, context, std::move(url), mode, priority, std::move(callbackHandler)) {
}

ChunkedDownload::ChunkedDownload(KovoEngine& engine, TransferContext* context, std::string url,
                                 std::string outputPath, kovo_chunking_mode mode,
                                 std::uint32_t priority,
                                 std::shared_ptr<ClientCallbackHandler> callbackHandler)
    : ChunkedTransfer(engine, context, std::move(url), mode, priority, std::move(callbackHandler)) {
  SqliteResumeCache* cache = getResumeCache();
  if (cache != nullptr) {
    cache->clearOutdatedCacheTimer();
  }
  setFilePath(outputPath);
  if (!takesPartInResume()) {
    return;
  }
  const char* path = outputPath.c_str();
  if (isResumabilityAllowed()) {
    _isFilePartiallyDownloaded = cache->isFilePartiallyDownloaded(outputPath);
    if (_isFilePartiallyDownloaded) {
      KOVO_LOG(KOVO_LOG_WARN, "kovo::ChunkedDownload::ChunkedDownload",
               "File is partially downloaded for filepath: %s", path);
      _resuming = true;
      readGeometry();
    } else {
      KOVO_LOG(KOVO_LOG_WARN, "kovo::ChunkedDownload::ChunkedDownload",
               "File is not downloaded prior for filepath: %s", path);
      cache->deleteFromCacheDownload(outputPath);
    }
  } else {
    KOVO_LOG(KOVO_LOG_WARN, "kovo::ChunkedDownload::ChunkedDownload",
             "File download need not be resumed for filepath: %s", path);
    if (cache != nullptr) {
      cache->deleteFromCacheDownload(outputPath);
    }
  }
}

void ChunkedDownload::setByteRange(const KovoRange& range) {
  _requestedRange = range;
  setRange(range);
  _httpStatus = 206;
}

// --- What is allowed ----------------------------------------------------------------------------

std::uint64_t ChunkedDownload::effectiveChunkSize() const {
  const std::uint64_t recorded = _recordedChunkSize;
  return recorded != 0 ? recorded : _engine.getSettings().chunkSize;
}

bool ChunkedDownload::isChunkingEnabled(bool unknownLengthCounts) const {
  const auto length = static_cast<std::uint64_t>(getRange().length);
  const bool longEnough = (unknownLengthCounts && length == 0) || length >= effectiveChunkSize();
  const kovo_chunking_mode mode = _chunkingMode;
  return longEnough && (mode == KOVO_CHUNKING_ALWAYS ||
                        (mode == KOVO_CHUNKING_DEFAULT && _engine.getSettings().chunkDownloads));
}

bool ChunkedDownload::isChunkingAllowed() const {
  return isChunkingEnabled(true);
}

kovo_chunk_type ChunkedDownload::getChunkType() const {
  return isChunkingAllowed() ? KOVO_CHUNK_TYPE_CHUNK : KOVO_CHUNK_TYPE_SINGLE;
}

bool ChunkedDownload::isCancellable() const {
  return getState() != failing && getState() != finished;
}

std::uint64_t ChunkedDownload::getChunkSize() const {
  return isChunkingAllowed() ? effectiveChunkSize() : static_cast<std::uint64_t>(getRange().length);
}

std::uint32_t ChunkedDownload::getAvailableWorkCount() const {
  if (_awaitingWholeResource && getActiveWorkCount() != 0) {
    return 0;
  }
  return ChunkedTransfer::getAvailableWorkCount();
}

bool ChunkedDownload::shouldRetryChunk(std::int32_t chunkNumber, std::shared_ptr<KovoError> error,
                                       std::shared_ptr<KovoHTTPError> httpError) {
  const std::uint32_t status = httpError->httpStatus;
  if (_resuming && getState() == waiting_init &&
      (status == 400 || status == 403 || status == 405 || status == 501)) {
    // The server does not answer HEAD. Without it nothing tells whether the partial file is still
    // current, so the download starts again with a GET.
    _resuming = false;
    _engine.pause(getToken(), true);
    return true;
  }
  return ChunkedTransfer::shouldRetryChunk(chunkNumber, std::move(error), std::move(httpError));
}

// --- Requests -----------------------------------------------------------------------------------

std::unique_ptr<Work> ChunkedDownload::createWork() {
  switch (getState()) {
    case init:
      return createWorkForInit();
    case transferring_chunks:
      return createWorkForNextChunk();
    default:
      return createWorkForBadState();
  }
}

bool ChunkedDownload::recreateOutputFile() {
  if (!writesToFile()) {
    return true;
  }
  // Rows first: they must never claim bytes that are gone.
  forgetRecordedChunks();
  _writtenEnd = 0;
  std::string reason;
  bool isRegular = false;
  const kovo_error code = KOVOUtils::createOutputFile(getFilePath(), reason, &isRegular);
  if (code != KOVO_ERROR_NONE) {
    setError(makeKovoError(code, std::move(reason)));
    return false;
  }
  _ownsOutput = isRegular;
  return true;
}

std::unique_ptr<Work> ChunkedDownload::createWorkForInit() {
  KOVO_ASSERT(getActiveWorkCount() == 0, "no work may be active before the initial request");
  const std::string path = getFilePath();
  if (_resuming) {
    std::uint64_t size = 0;
    std::int64_t modified = 0;
    std::shared_ptr<KovoError> missing;
    _resuming = isResumabilityAllowed() && getFileStat(path, size, modified, missing);
  }
  if (_resuming) {
    _ownsOutput = true;
  } else {
    _recordedChunkSize = 0;  // nothing is left that was cut the old way
  }
  setContentLengthUnknown();
  setRange(_requestedRange);
  _totalKnown = false;
  _totalSize = 0;
  _wholeResourceDelivered = false;
  _awaitingWholeResource = false;
  _firstBytesLoaded = false;
  _httpStatus = hasRange() ? 206 : 0;
  clearRanges();
  const std::string none;
  setValidators(&none, &none);

  KovoNumberedRange first;
  makeFirstRange(first);
  setState(waiting_init);
  if (_resuming) {
    KOVO_LOG(KOVO_LOG_INFO, "kovo::ChunkedDownload::createWorkForInit",
             "Create head request to get file details for filepath: %s", path.c_str());
    // The file and its rows are looked at, and perhaps replaced, by the worker that asked, not
    // under the locks held here or in headFinished.
    _partialFile = PartialFile::NotJudged;
    return std::make_unique<SteppedRequest>(
        createRequest(*this, KOVO_HTTP_HEAD, getUrl(), OP_DOWNLOAD_FILE, std::string(), false,
                      _callbackHandler),
        nullptr, [this](Request& head) {
          if (!isFailed(head) && !isCancelled()) {
            _partialFile = judgePartialFile();
          }
          return KOVO_ERROR_NONE;
        });
  }
  std::unique_ptr<Request> request;
  if (first.start != 0 || first.length != 0) {
    request = createGet(first);
  } else {
    request = createRequest(*this, KOVO_HTTP_GET, getUrl(),
                            writesToFile() ? OP_DOWNLOAD_FILE : OP_DOWNLOAD, path, false,
                            _callbackHandler);
  }
  if (!writesToFile()) {
    return request;
  }
  // The file is made by the worker that fetches its first bytes, not under the locks held here.
  return std::make_unique<SteppedRequest>(
      std::move(request), [this] { return recreateOutputFile(); }, nullptr);
}

std::unique_ptr<Work> ChunkedDownload::createRangedGet(const KovoNumberedRange& range) {
  const auto start = static_cast<std::uint64_t>(range.start);
  if (!_chunksDownloadedFirstByte.empty() && _chunksDownloadedFirstByte.count(start) != 0 &&
      isResumabilityAllowed()) {
    return nullptr;
  }
  return createGet(range);
}

std::unique_ptr<Request> ChunkedDownload::createGet(const KovoNumberedRange& range) {
  return createRangedRequest(*this, KOVO_HTTP_GET, getUrl(),
                             writesToFile() ? OP_DOWNLOAD_FILE_RANGE : OP_DOWNLOAD_RANGE,
                             getFilePath(), range, false, _callbackHandler);
}

std::unique_ptr<Work> ChunkedDownload::createWorkForNextChunk() {
  std::unique_ptr<Work> work;
  KovoNumberedRange range;
  std::uint64_t present = 0;
  while (work == nullptr && popNextRange(range)) {
    work = createRangedGet(range);
    if (work == nullptr) {
      present += static_cast<std::uint64_t>(range.length);
    }
  }
  reportPresent(present);
  if (!hasRangesRemaining()) {
    setState(finishing_chunks);
  }
  if (work == nullptr && getActiveWorkCount() == 0) {
    // Everything is in the file already; a unit of no work brings the scheduler back to finish.
    work = std::make_unique<NullWork>();
  }
  return work;
}

// --- Response headers ---------------------------------------------------------------------------

void ChunkedDownload::setTotal(std::uint64_t total) {
  _totalSize = total;
  _totalKnown = true;
  setExpectedLength(total);
}

void ChunkedDownload::failChanged(const std::string& what) {
  setError(makeKovoError(KOVO_ERROR_DOWNLOAD_FAILED,
                         "The resource changed while it was downloaded: " + what));
}

void ChunkedDownload::processResponseHeader(Request& request, const Header& header) {
  const std::uint32_t status = request.getHttpStatus();
  if (status < 200 || status > 299) {
    return;
  }
  const auto& [name, value] = header;
  if (KovoHttpUtils::equalsIgnoreCase(name, http::kEntityTag)) {
    processEntityTag(value);
  } else if (KovoHttpUtils::equalsIgnoreCase(name, http::kLastModified)) {
    processLastModified(value);
  } else if (KovoHttpUtils::equalsIgnoreCase(name, http::kContentRange)) {
    if (status == 206) {
      processContentRange(value);
    }
  } else if (KovoHttpUtils::equalsIgnoreCase(name, http::kContentLength)) {
    // On a partial answer it is the length of the part.
    if (status != 206 && !isContentLengthKnown()) {
      setTotal(parseDecimal(value));
    }
  }
}

void ChunkedDownload::processEntityTag(const std::string& value) {
  const std::string known = getEntityTag();
  if (!known.empty() && known != value) {
    failChanged("its entity tag was " + known + " and is now " + value);
    return;
  }
  setValidators(&value, nullptr);
  if (!_firstBytesLoaded && _resuming && isResumabilityAllowed()) {
    loadRecordedChunks(value);
  }
}

void ChunkedDownload::processLastModified(const std::string& value) {
  const std::string known = getLastModified();
  if (!known.empty() && known != value && getEntityTag().empty()) {
    failChanged("its modification time was " + known + " and is now " + value);
    return;
  }
  setValidators(nullptr, &value);
}

void ChunkedDownload::processContentRange(const std::string& value) {
  const std::size_t slash = value.find('/');
  std::string total = slash == std::string::npos ? std::string() : value.substr(slash + 1);
  const std::size_t begin = total.find_first_not_of(" \t");
  total = begin == std::string::npos ? std::string() : total.substr(begin);
  if (!total.empty() && total[0] != '*') {
    try {
      const std::uint64_t size = parseDecimal(total);
      if (!isContentLengthKnown()) {
        setTotal(size);
      } else if (_totalKnown && _totalSize != size) {
        failChanged("its size was " + std::to_string(_totalSize) + " and is now " +
                    std::to_string(size));
      }
    } catch (const std::out_of_range& exception) {
      KOVO_LOG(KOVO_LOG_ERROR, "kovo::ChunkedDownload::processResponseHeader",
               "Failed to convert content length value in content-range header: %s, %s",
               total.c_str(), exception.what());
    } catch (const std::invalid_argument&) {
      // Left unknown; told below.
    }
  }
  if (!isContentLengthKnown()) {
    KOVO_LOG(KOVO_LOG_WARN, "kovo::ChunkedDownload::processResponseHeader",
             "Download %s failed to process content-range header: %s",
             KovoHttpUtils::redactUrl(getUrl()).c_str(), value.c_str());
  }
}

// --- The initial answer -------------------------------------------------------------------------

void ChunkedDownload::setIntermediateStatus(std::uint32_t status) {
  const std::uint32_t known = _httpStatus;
  if (known == 0 || (status != 0 && status < known)) {
    _httpStatus = status;
  }
}

std::uint32_t ChunkedDownload::getTransferHttpStatus() const {
  const std::uint32_t status = _httpStatus;
  return status == 206 && !hasRange() ? 200 : status;
}

ChunkedTransfer::State ChunkedDownload::transferInitFinished(Work& work) {
  const auto& request = dynamic_cast<const Request&>(work);
  const bool chunkingEnabled = isChunkingEnabled(false);
  const bool resumabilityAllowed =
      _engine.getSettings().tryResumableTransfer && chunkingEnabled && getResumeCache() != nullptr;
  KOVO_LOG(KOVO_LOG_INFO, "kovo::ChunkedDownload::transferInitFinished", "resumabilityAllowed : %d",
           resumabilityAllowed ? 1 : 0);
  KOVO_LOG(KOVO_LOG_INFO, "kovo::ChunkedDownload::transferInitFinished", "chunkingEnabled : %d",
           chunkingEnabled ? 1 : 0);
  const std::uint32_t status = _httpStatus;
  if (request.getVerb() == KOVO_HTTP_HEAD) {
    return headFinished();
  }
  if (request.deliveredWholeResource() && (status == 200 || status == 203)) {
    if (!resumabilityAllowed && chunkingEnabled && getResumeCache() == nullptr) {
      KOVO_LOG(KOVO_LOG_INFO, "kovo::ChunkedDownload::transferInitFinished",
               "Resuming and resuming pointer is null for filepath: %s", getFilePath().c_str());
    } else if (!resumabilityAllowed) {
      KOVO_LOG(KOVO_LOG_INFO, "kovo::ChunkedDownload::transferInitFinished",
               "size changed for filepath: %s", getFilePath().c_str());
    }
    if (!isContentLengthKnown()) {
      KOVO_LOG(KOVO_LOG_WARN, "kovo::ChunkedDownload::transferInitFinished",
               "Unknown Content Size. Forcing request to be Serial.");
    }
    _wholeResourceDelivered = true;
    return finish();
  }
  if (status != 206) {
    return initialFailed(request, status);
  }
  return initialRangeFinished(request);
}

ChunkedTransfer::State ChunkedDownload::initialFailed(const Request& request,
                                                      std::uint32_t status) {
  // To memory, the status line and whatever body there was have told the client. A file that
  // does not hold the resource is not a completed download.
  if (writesToFile() || (status == 200 && !request.isComplete())) {
    setError(makeKovoError(KOVO_ERROR_DOWNLOAD_FAILED,
                           "The server answered with HTTP status " + std::to_string(status)));
    return failing;
  }
  return finish();
}

ChunkedTransfer::State ChunkedDownload::initialRangeFinished(const Request& request) {
  const KovoNumberedRange first = request.getRange();
  if (!request.isComplete()) {
    failMissing(request);
    return failing;
  }
  const auto delivered = static_cast<std::int64_t>(request.getDeliveredLength());
  if (takesPartInResume() && isResumabilityAllowed() && !_resuming) {
    // The row itself was written when the chunk's bytes had reached the file.
    KOVO_LOG(KOVO_LOG_INFO, "kovo::ChunkedDownload::transferInitFinished",
             "Store the chunk details in cache if not in _chunksDownloadedFirstByte for file %s",
             getFilePath().c_str());
    if (isContentLengthKnown()) {
      KOVO_LOG(KOVO_LOG_INFO, "kovo::ChunkedDownload::transferInitFinished",
               "First chunk already successfully downloaded for filepath: %s",
               getFilePath().c_str());
    }
  }
  if (!isContentLengthKnown()) {
    KOVO_LOG(KOVO_LOG_WARN, "kovo::ChunkedDownload::transferInitFinished",
             "Unknown Content Size. Forcing request to be Serial.");
    _chunkingMode = KOVO_CHUNKING_SERIAL;
    setNextOffset(first.start + delivered);
    if (getRange().length != 0) {
      // The client's own range bounds it; ask for what of it is missing.
      const std::int64_t missing = getRange().start + getRange().length - getNextOffset();
      if (missing > 0) {
        requeueRange(KovoNumberedRange(getNextOffset(), missing, 0));
      }
    } else {
      createRanges(true);
    }
    return hasRangesRemaining() ? transferring_chunks : finish();
  }
  const std::int64_t end = getRange().start + getRange().length;
  const std::int64_t asked = first.length == 0 ? end : std::min(first.start + first.length, end);
  if (first.length == 0) {
    setNextOffset(end);
  }
  createRanges(true);
  if (first.start + delivered < asked) {
    requeueRange(KovoNumberedRange(first.start + delivered, asked - first.start - delivered, 0));
  }
  return hasRangesRemaining() ? transferring_chunks : finish();
}

ChunkedDownload::PartialFile ChunkedDownload::judgePartialFile() {
  const char* function = "kovo::ChunkedDownload::transferInitFinished";
  const std::string path = getFilePath();
  const bool resumabilityAllowed = _engine.getSettings().tryResumableTransfer &&
                                   isChunkingEnabled(false) && getResumeCache() != nullptr;
  if (!_totalKnown || !resumabilityAllowed) {
    KOVO_LOG(KOVO_LOG_INFO, function, "size changed for filepath: %s", path.c_str());
    const bool isReady = recreateOutputFile();
    _isFilePartiallyDownloaded = false;
    _resuming = false;
    return isReady ? PartialFile::Emptied : PartialFile::Lost;
  }
  if (_resuming && _chunksDownloadedFirstByte.count(0) != 0 && recordedChunksAreUsable()) {
    KOVO_LOG(KOVO_LOG_INFO, function,
             "First chunk already successfully downloaded for filepath: %s", path.c_str());
    return PartialFile::Usable;
  }
  KOVO_LOG(KOVO_LOG_INFO, function, "First chunk not downloaded for filepath: %s", path.c_str());
  if (!recreateOutputFile()) {
    return PartialFile::Lost;
  }
  _resuming = false;
  return PartialFile::Replaced;
}

ChunkedTransfer::State ChunkedDownload::headFinished() {
  if (_partialFile == PartialFile::NotJudged) {
    _partialFile = judgePartialFile();  // an answer that is neither a refusal nor of use
  }
  switch (_partialFile) {
    case PartialFile::Emptied:
      return init;
    case PartialFile::Replaced:
      createRanges(false);
      return transferring_chunks;
    case PartialFile::Usable:
      setNextOffset(getRange().start + static_cast<std::int64_t>(getChunkSize()));
      _writtenEnd = std::min<std::uint64_t>(
          *_chunksDownloadedFirstByte.rbegin() + effectiveChunkSize(), _totalSize);
      reportPresent(getChunkSize());
      createRanges(true);
      return hasRangesRemaining() ? transferring_chunks : finish();
    default:
      return failing;
  }
}

// --- Bytes --------------------------------------------------------------------------------------

void ChunkedDownload::writeBlock(std::uint64_t offset, ByteBlock& block, std::size_t size,
                                 const std::shared_ptr<PlatformFileOStream>& stream) {
  if (hasError()) {
    return;
  }
  if (!isChunkingAllowed()) {
    writeData(offset, block.data(), size, stream);
  } else if (size > 0) {
    _buffer.keep(offset, std::move(block), size);
    block = ByteBlock();
  }
}

void ChunkedDownload::writeData(std::uint64_t offset, const std::uint8_t* data, std::size_t size,
                                const std::shared_ptr<PlatformFileOStream>& stream) {
  if (isOutputCutShort()) {
    return;
  }
  ChunkedTransfer::writeData(offset, data, size, stream);
  if (!hasError() && offset + size > _writtenEnd) {
    _writtenEnd = offset + size;
  }
}

bool ChunkedDownload::isOutputCutShort() {
  // Were the file cut and then written behind the cut, its size would be right again in the end
  // and the bytes lost would be zeros.
  if (hasError() || _writtenEnd == 0 || !_ownsOutput) {
    return false;
  }
  std::uint64_t size = 0;
  std::int64_t modified = 0;
  std::shared_ptr<KovoError> error;
  if (!getFileStat(getFilePath(), size, modified, error)) {
    setError(makeKovoError(KOVO_ERROR_FILE_NOT_FOUND, "The output file is gone: " + getFilePath()));
    return true;
  }
  if (size < _writtenEnd) {
    setError(makeKovoError(KOVO_ERROR_NOT_ENOUGH_DATA, "The output file was cut short to " +
                                                           std::to_string(size) +
                                                           " bytes by others: " + getFilePath()));
    return true;
  }
  return false;
}

void ChunkedDownload::rangeCompleted(const KovoRange& range,
                                     const std::shared_ptr<PlatformFileOStream>& stream) {
  _buffer.complete(
      range,
      [this, &stream](std::uint64_t offset, const std::uint8_t* data, std::size_t size) {
        writeData(offset, data, size, stream);
        return !hasError();
      },
      [this](const KovoRange& done, std::uint64_t written) {
        if (written != 0) {
          const auto start = static_cast<std::uint64_t>(done.start);
          recordChunk(start, start + written);
        }
      });
}

void ChunkedDownload::rangeDiscarded(const KovoRange& range) {
  _buffer.discard(range);
}

// --- Finished chunks ----------------------------------------------------------------------------

bool ChunkedDownload::isWholeResourceUnderWay() const {
  const std::int64_t start = getRange().start;
  bool underWay = false;
  forEachActiveWork([&](const Work& work) {
    const auto* request = dynamic_cast<const Request*>(&work);
    underWay = underWay || (request != nullptr && request->getRange().start == start);
  });
  return underWay;
}

void ChunkedDownload::failMissing(const Request& request) {
  const KovoNumberedRange range = request.getRange();
  setError(makeKovoError(
      KOVO_ERROR_NOT_ENOUGH_DATA,
      "The server answered the request for bytes=" + std::to_string(range.start) + "-" +
          (range.length == 0 ? std::string() : std::to_string(range.start + range.length - 1)) +
          " with HTTP status " + std::to_string(request.getHttpStatus()) +
          " and none of these bytes"));
}

bool ChunkedDownload::accountForOpenEnd(const Request& request, const KovoNumberedRange& range) {
  const auto delivered = static_cast<std::int64_t>(request.getDeliveredLength());
  if (isContentLengthKnown()) {
    // This answer named the size at last.
    const std::int64_t missing = getRange().start + getRange().length - range.start - delivered;
    if (missing > 0) {
      if (delivered == 0) {
        return false;
      }
      requeueRange(KovoNumberedRange(range.start + delivered, missing, range.number));
    }
    return true;
  }
  if (request.getHttpStatus() == 416) {
    return true;  // there is nothing behind what has been fetched
  }
  if (!request.isComplete() || delivered == 0) {
    return false;
  }
  requeueRange(KovoNumberedRange(range.start + delivered, 0, range.number));
  return true;
}

bool ChunkedDownload::accountFor(const Request& request) {
  const KovoNumberedRange range = request.getRange();
  if (request.deliveredWholeResource()) {
    _wholeResourceDelivered = true;
    clearRanges();
  }
  if (_wholeResourceDelivered) {
    return true;
  }
  if (range.length == 0) {
    return accountForOpenEnd(request, range);
  }
  const auto delivered =
      request.isComplete() ? static_cast<std::int64_t>(request.getDeliveredLength()) : 0;
  if (delivered >= range.length) {
    return true;
  }
  if (delivered > 0) {
    requeueRange(
        KovoNumberedRange(range.start + delivered, range.length - delivered, range.number));
    return true;
  }
  if (request.getHttpStatus() == 200 && range.start != getRange().start &&
      isWholeResourceUnderWay()) {
    requeueRange(range);
    _awaitingWholeResource = true;
    return true;
  }
  return false;
}

ChunkedTransfer::State ChunkedDownload::chunkFinished(Work* work) {
  if (const auto* request = dynamic_cast<const Request*>(work)) {
    if (request->getRange().start == getRange().start) {
      _awaitingWholeResource = false;
    }
    if (!accountFor(*request)) {
      failMissing(*request);
      return failing;
    }
  }
  if (hasRangesRemaining()) {
    return transferring_chunks;
  }
  if (getActiveWorkCount() < 2) {
    KOVO_LOG(KOVO_LOG_INFO, "kovo::ChunkedDownload::chunkFinished",
             "all chunks downloaded for filepath: %s", getFilePath().c_str());
    return finish();
  }
  return getState();
}

ChunkedTransfer::State ChunkedDownload::firstChunkFinished() {
  return chunkFinished(nullptr);
}

ChunkedTransfer::State ChunkedDownload::lastChunkFinished() {
  return chunkFinished(nullptr);
}

// --- The end ------------------------------------------------------------------------------------

void ChunkedDownload::verifyComplete() {
  if (!_ownsOutput || !_totalKnown) {
    return;
  }
  std::uint64_t size = 0;
  std::int64_t modified = 0;
  std::shared_ptr<KovoError> error;
  if (!getFileStat(getFilePath(), size, modified, error)) {
    setError(makeKovoError(KOVO_ERROR_FILE_NOT_FOUND, "The output file is gone: " + getFilePath()));
  } else if (size != _totalSize) {
    setError(makeKovoError(KOVO_ERROR_NOT_ENOUGH_DATA,
                           "The output file holds " + std::to_string(size) + " bytes of " +
                               std::to_string(_totalSize) + ": " + getFilePath()));
  }
}

void ChunkedDownload::settle(Outcome outcome) {
  if (!writesToFile() || keepsPartialFile(outcome)) {
    return;
  }
  if (outcome == Outcome::Failed && _ownsOutput && getError()->code != kKeepsPartialFile) {
    KOVOUtils::deleteOutputFile(getFilePath());
  }
  // A completed download keeps its rows until the client has been told: killed while it gives the
  // file its name, say, it then finds everything recorded.
  if (outcome != Outcome::Completed) {
    deleteRows(outcome);
  }
}

void ChunkedDownload::tidyUp(Outcome outcome) {
  if (outcome == Outcome::Completed && writesToFile()) {
    deleteRows(outcome);
  } else if (keepsPartialFile(outcome)) {
    syncPartialFile();
  }
}

void ChunkedDownload::settlePause() {
  if (takesPartInResume() && isResumabilityAllowed()) {
    syncPartialFile();
  }
}

}  // namespace kovo
