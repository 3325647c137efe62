#include "transfers/transfer.h"

#include <algorithm>
#include <utility>

#include "core/assertion.h"
#include "core/kovo_settings.h"
#include "http/kovo_http_utils.h"
#include "http/proxy_config.h"
#include "http/request.h"
#include "log/kovo_log.h"
#include "platform/kovo_utils.h"
#include "scheduling/kovo_stats_aggregator.h"
#include "scheduling/kovo_strategy.h"

namespace kovo {

Transfer::Transfer(KovoEngine& engine, TransferContext* context, std::string url,
                   kovo_chunking_mode mode, std::uint32_t priority,
                   std::shared_ptr<ClientCallbackHandler> callbackHandler)
    : _engine(engine),
      _callbackHandler(std::move(callbackHandler)),
      _chunkingMode(mode),
      _context(context),
      _url(std::move(url)),
      _priority(priority),
      _mutex(std::make_shared<Mutex>()) {}

Transfer::~Transfer() {
  // Requests refer to the factory, so they go first.
  ScopedLock guard(_activeLock);
  _activeWork.clear();
}

// --- Flags, error, outcome ----------------------------------------------------------------------

kovo_error Transfer::cancel(bool dueToError) {
  {
    ScopedLock guard(_stateLock);
    if (_outcome != Outcome::Undecided) {
      return _outcome == Outcome::Cancelled ? KOVO_ERROR_CANCELLED : KOVO_ERROR_NOT_CANCELLABLE;
    }
    if (!_cancelled && !dueToError && _error == nullptr && !isCancellable()) {
      return KOVO_ERROR_NOT_CANCELLABLE;
    }
    if (!_callbackHandler->setCancelled(dueToError)) {
      return KOVO_ERROR_CANCELLED;
    }
    _cancelled = true;
  }
  ScopedLock guard(_activeLock);
  for (const auto& work : _activeWork) {
    work->cancel();
  }
  return KOVO_ERROR_NONE;
}

void Transfer::setError(std::shared_ptr<KovoError> error) {
  {
    ScopedLock guard(_stateLock);
    if (_error != nullptr || _outcome != Outcome::Undecided) {
      return;
    }
    _error = std::move(error);
    _hasError = true;
  }
  cancel(true);
}

std::shared_ptr<KovoError> Transfer::getError() const {
  ScopedLock guard(_stateLock);
  return _error;
}

bool Transfer::isCancelledDueToError() const {
  ScopedLock guard(_stateLock);
  return _cancelled && _error != nullptr && _callbackHandler->wasCancelledDueToError();
}

void Transfer::abandon() {
  _abandoned = true;
  setError(makeKovoError(KOVO_ERROR_CANCELLED, "The engine is being destroyed"));
}

Transfer::Outcome Transfer::decideOutcome() {
  // Under the state lock, so that a cancel is either seen here or refused.
  ScopedLock guard(_stateLock);
  if (_outcome == Outcome::Undecided) {
    if (_cancelled && !isCancelledDueToError()) {
      _outcome = Outcome::Cancelled;
    } else if (_error != nullptr) {
      _outcome = Outcome::Failed;
    } else {
      _outcome = Outcome::Completed;
    }
  }
  return _outcome;
}

// --- Pause --------------------------------------------------------------------------------------

bool Transfer::pause(bool restartWhenDrained) {
  ScopedLock guard(_stateLock);
  if (!_pausing) {
    _pausing = true;
    _drained = false;
    _restartWhenDrained = restartWhenDrained;
    return true;
  }
  // A pause the client asks for outlasts the transfer's own short one for a retry, also when that
  // one has just drained and was about to restart.
  if (!restartWhenDrained && _restartWhenDrained) {
    _restartWhenDrained = false;
    if (_drained) {
      reportPause();
    }
  }
  return false;
}

void Transfer::clearPausing() {
  ScopedLock guard(_stateLock);
  _pausing = false;
}

bool Transfer::shouldRestartWhenDrained() const {
  ScopedLock guard(_stateLock);
  return _restartWhenDrained;
}

void Transfer::restartOnceDrained() {
  ScopedLock guard(_stateLock);
  _restartWhenDrained = true;
  _pauseReportDue = false;
}

void Transfer::pauseHasDrained() {
  ScopedLock guard(_stateLock);
  _drained = true;
  if (!_restartWhenDrained) {
    reportPause();
  }
}

void Transfer::reportPause() {
  _pauseReportDue = true;
  addNotification([this] {
    {
      ScopedLock guard(_stateLock);
      if (!_pauseReportDue) {
        return;
      }
      _pauseReportDue = false;
    }
    _callbackHandler->invokePausedCallback();
  });
}

// --- Notifications ------------------------------------------------------------------------------

void Transfer::addNotification(std::function<void()> notification) {
  ScopedLock guard(_notificationLock);
  _notifications.push_back(std::move(notification));
}

void Transfer::deliverNotifications() {
  {
    ScopedLock guard(_notificationLock);
    if (_delivering) {
      return;  // the thread that delivers goes on until none is left, which keeps the order
    }
    _delivering = true;
  }
  for (;;) {
    std::function<void()> next;
    {
      ScopedLock guard(_notificationLock);
      if (_notifications.empty()) {
        _delivering = false;
        return;
      }
      next = std::move(_notifications.front());
      _notifications.pop_front();
    }
    try {
      next();
    } catch (const std::exception& exception) {
      KOVO_LOG(KOVO_LOG_ERROR, "kovo::Transfer::deliverNotifications",
               "Unexpected exception caught: %s", exception.what());
    }
  }
}

void Transfer::monitor(std::uint32_t kind, const void* data, std::size_t length) {
  _callbackHandler->invokeMonitorCallback(kind, data, length);
}

// --- Active work --------------------------------------------------------------------------------

void Transfer::addActiveWork(std::unique_ptr<Work> work) {
  KOVO_ASSERT(work, "work");
  if (work == nullptr) {
    return;
  }
  ScopedLock guard(_activeLock);
  _activeWork.push_back(std::move(work));
}

void Transfer::removeActiveWork(Work* work) {
  KOVO_ASSERT(work, "work");
  std::unique_ptr<Work> removed;  // declared first: destroyed after the lock is released
  ScopedLock guard(_activeLock);
  if (_responsesReceived > 0) {
    --_responsesReceived;
  }
  const auto found = std::find_if(_activeWork.begin(), _activeWork.end(),
                                  [work](const auto& held) { return held.get() == work; });
  if (found != _activeWork.end()) {
    removed = std::move(*found);
    _activeWork.erase(found);
  }
}

std::size_t Transfer::getActiveWorkCount() const {
  ScopedLock guard(_activeLock);
  return _activeWork.size();
}

std::uint32_t Transfer::getResponsesReceived() const {
  ScopedLock guard(_activeLock);
  return _responsesReceived;
}

void Transfer::forEachActiveWork(const std::function<void(const Work&)>& visit) const {
  ScopedLock guard(_activeLock);
  for (const auto& work : _activeWork) {
    visit(*work);
  }
}

std::uint32_t Transfer::filterHttpStatus(std::uint32_t status) {
  ScopedLock guard(_activeLock);
  ++_responsesReceived;
  return status;
}

// --- Headers and parameters ---------------------------------------------------------------------

void Transfer::addParameters(HeaderList& parameters) {
  const HeaderList& given = _callbackHandler->invokeAddParametersCallback();
  parameters.insert(parameters.end(), given.begin(), given.end());
}

HeaderList Transfer::filterHeaders(const HeaderList& headers) {
  HeaderList kept;
  kept.reserve(headers.size());
  for (const Header& header : headers) {
    if (KovoHttpUtils::equalsIgnoreCase(header.first, http::kContentType)) {
      ScopedLock guard(_stateLock);
      _contentType = header.second;
    } else if (KovoHttpUtils::equalsIgnoreCase(header.first, http::kAcceptEncoding)) {
      _acceptEncodingGiven = true;
    } else if (KovoHttpUtils::equalsIgnoreCase(header.first, http::kContentMD5)) {
      MimeSourceFactory* factory = getMimeSourceFactory();
      if (factory != nullptr && factory->setFileChecksum(header.second)) {
        continue;
      }
    }
    kept.push_back(header);
  }
  return kept;
}

const HeaderList& Transfer::getRequestHeaders() {
  {
    ScopedLock guard(_stateLock);
    if (_requestHeadersCached) {
      return _requestHeaders;
    }
  }
  // The client is asked without a lock; the handler asks it once, whoever comes first.
  HeaderList filtered = filterHeaders(_callbackHandler->invokeRequestHeadersCallback());
  ScopedLock guard(_stateLock);
  if (!_requestHeadersCached) {
    _requestHeaders = std::move(filtered);
    _requestHeadersCached = true;
  }
  return _requestHeaders;
}

void Transfer::getChunkHeaders(const std::string&, std::int32_t, HeaderList&) {}

void Transfer::onResponseHeaders(Request& request, const HeaderList& headers, bool errorRecorded) {
  for (const Header& header : headers) {
    processResponseHeader(request, header);
  }
  if (!handleResponseHeaders(errorRecorded)) {
    _callbackHandler->invokeResponseHeaderCallback(headers, errorRecorded);
  }
}

void Transfer::onStatusLine(Request&, const std::string& httpVersion, std::uint32_t status,
                            const std::string& reason) {
  _callbackHandler->invokeStatusLineCallback(httpVersion.c_str(), status, reason.c_str());
}

std::string Transfer::getContentType() const {
  ScopedLock guard(_stateLock);
  return _contentType;
}

std::string Transfer::getEntityTag() const {
  ScopedLock guard(_stateLock);
  return _entityTag;
}

std::string Transfer::getLastModified() const {
  ScopedLock guard(_stateLock);
  return _lastModified;
}

void Transfer::setValidators(const std::string* entityTag, const std::string* lastModified) {
  ScopedLock guard(_stateLock);
  if (entityTag != nullptr) {
    _entityTag = *entityTag;
  }
  if (lastModified != nullptr) {
    _lastModified = *lastModified;
  }
}

// --- Range and size -----------------------------------------------------------------------------

KovoRange Transfer::getRange() const {
  ScopedLock guard(_stateLock);
  return _range;
}

void Transfer::setRange(const KovoRange& range) {
  ScopedLock guard(_stateLock);
  _range = range;
  _hasRange = !(range.start <= 0 && range.length <= 0);
}

void Transfer::setExpectedLength(std::uint64_t total) {
  std::int64_t length = 0;
  {
    ScopedLock guard(_stateLock);
    const auto size = static_cast<std::int64_t>(
        std::min<std::uint64_t>(total, static_cast<std::uint64_t>(INT64_MAX)));
    if (_range.length != 0) {
      if (size != 0 && _range.length > size - _range.start) {
        _range.length = std::max<std::int64_t>(size - _range.start, 0);
      }
    } else {
      _range.length = std::max<std::int64_t>(size - _range.start, 0);
    }
    length = _range.length;
    _contentLengthKnown = true;
  }
  _callbackHandler->setTotalBytes(static_cast<std::uint64_t>(length));
}

// --- Files --------------------------------------------------------------------------------------

void Transfer::writeData(std::uint64_t offset, const std::uint8_t* data, std::size_t size,
                         const std::shared_ptr<PlatformFileOStream>& stream) {
  if (_hasError) {
    return;
  }
  if (!stream->isOpen() || !stream->SetCurrentPosition(offset)) {
    reportFileError("Failed to seek in output file", stream->lastErrorKind);
    return;
  }
  if (!stream->WriteBlock(data, size)) {
    reportFileError("Unable to write to file", stream->lastErrorKind);
  }
}

void Transfer::writeBlock(std::uint64_t offset, ByteBlock& block, std::size_t size,
                          const std::shared_ptr<PlatformFileOStream>& stream) {
  writeData(offset, block.data(), size, stream);
}

void Transfer::rangeCompleted(const KovoRange&, const std::shared_ptr<PlatformFileOStream>&) {}

void Transfer::rangeDiscarded(const KovoRange&) {}

void Transfer::reportFileError(const std::string& message, FileErrorKind kind) {
  std::string text = message + ": " + _filePath;
  const kovo_error code = mapFileError(kind, KOVO_ERROR_WRITE_STREAM_FAILURE, text);
  setError(makeKovoError(code, std::move(text)));
}

void Transfer::setMimeSourceFactory(std::unique_ptr<MimeSourceFactory> factory) {
  KOVO_ASSERT(_mimeSourceFactory == nullptr, "the upload protocol is chosen once");
  _mimeSourceFactory = std::move(factory);
  _factoryInForce = _mimeSourceFactory.get();
}

// --- Bridges ------------------------------------------------------------------------------------

bool Transfer::shouldRetryChunk(std::int32_t, std::shared_ptr<KovoError>,
                                std::shared_ptr<KovoHTTPError>) {
  return false;
}

void Transfer::bytesTransferred(std::uint64_t count) {
  _callbackHandler->invokeProgressCallback(count);
  const Interrupt interrupt = [this] { return isCancelled(); };
  _engine.getStatsAggregator().recordChunk(count, false, &interrupt);
}

void Transfer::applyProxyCredentials(Request& request) {
  const ProxyConfig::Credentials credentials = _engine.getProxyConfig().credentials();
  if (!credentials.username.empty()) {
    request.setProxyCredentials(credentials.username, credentials.password);
  }
}

bool Transfer::hasProxyCredentials() const {
  return _engine.getProxyConfig().hasCredentials();
}

bool Transfer::shouldValidateCertificateChain() {
  return _callbackHandler->invokeShouldValidateCertificateChain(_url);
}

std::uint32_t Transfer::getTimeout() {
  return _callbackHandler->invokeSetTimeoutCallback();
}

KOVOStatsAggregator& Transfer::getStatsAggregator() {
  return _engine.getStatsAggregator();
}
ProxyConfig& Transfer::getProxyConfig() {
  return _engine.getProxyConfig();
}
HttpGetCache* Transfer::getGetCache() {
  return _engine.getGetCache();
}
SqliteResumeCache* Transfer::getResumeCache() {
  return _engine.getResumeCache();
}
bool Transfer::isReserved2Set() const {
  return _engine.getSettings().reserved2;
}
bool Transfer::isReserved3Set() const {
  return _engine.getSettings().reserved3 != 0;
}

std::uint64_t Transfer::getUploadTargetSpeed() {
  return _engine.getStatsAggregator().getUploadTargetSpeed();
}

std::uint64_t Transfer::getDownloadTargetSpeed() {
  return _engine.getStatsAggregator().getDownloadTargetSpeed();
}

std::uint32_t Transfer::getWorkerPoolUpperLimit() {
  return _engine.getStrategy().getMaximumThreadCount();
}

std::uint32_t Transfer::getMaxActiveWorkProviders() const {
  return _engine.getSettings().maxActiveWorkProviders;
}

}  // namespace kovo
