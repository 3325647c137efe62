#include "http/wkovo_request.h"

#include <utility>

#include "core/assertion.h"
#include "core/kovo_error.h"
#include "http/kovo_http_utils.h"
#include "http/play_request_visitor.h"
#include "log/kovo_log.h"

namespace kovo {

std::unique_ptr<Request> createRequest(AbstractTransfer& transfer, kovo_http_verb verb,
                                       const std::string& url, Operation operation,
                                       const std::string& filePath, bool discardResponseBody,
                                       std::shared_ptr<ClientCallbackHandler> callbackHandler,
                                       HttpClient* httpClient) {
  return std::make_unique<WKovoRequest>(transfer, verb, url, operation, filePath,
                                        discardResponseBody, std::move(callbackHandler),
                                        httpClient != nullptr ? *httpClient : HttpClient::system());
}

std::unique_ptr<Request> createRangedRequest(
    AbstractTransfer& transfer, kovo_http_verb verb, const std::string& url, Operation operation,
    const std::string& filePath, const KovoNumberedRange& range, bool discardResponseBody,
    std::shared_ptr<ClientCallbackHandler> callbackHandler, HttpClient* httpClient) {
  auto request = createRequest(transfer, verb, url, operation, filePath, discardResponseBody,
                               std::move(callbackHandler), httpClient);
  request->setRange(range);
  return request;
}

WKovoRequest::WKovoRequest(AbstractTransfer& transfer, kovo_http_verb verb, std::string url,
                           Operation operation, std::string filePath, bool discardResponseBody,
                           std::shared_ptr<ClientCallbackHandler> callbackHandler,
                           HttpClient& httpClient)
    : _inURL(std::move(url)),
      _callbackHandler(std::move(callbackHandler)),
      _httpVerb(verb),
      _discardResponseBody(discardResponseBody),
      _filePath(std::move(filePath)),
      _parentTransfer(transfer),
      _client(httpClient),
      _interrupt([&transfer] { return transfer.isCancelled(); }),
      _operation(operation) {
  KOVO_ASSERT(!_inURL.empty(), "!_inURL.empty()");
}

WKovoRequest::~WKovoRequest() = default;

void WKovoRequest::run() {
  try {
    PlayRequestVisitor player;
    player.visit(*this);
    while (_retryParams.retry && _retryParams.attempts <= RetryParams::kLimit) {
      restoreGroundState();
      player.visit(*this);
      ++_retryParams.attempts;
    }
  } catch (const std::exception& exception) {
    // Only a report that failed itself ends here.
    KOVO_LOG(KOVO_LOG_CRITICAL, "kovo::WKovoRequest::run", "Request ended by an exception: %s",
             exception.what());
    _complete = false;
    _errorCode = KOVO_ERROR_OPERATION_ERROR;
  }
  _finished = true;
}

void WKovoRequest::setParent(std::shared_ptr<WorkProvider> parent) {
  _parent = std::move(parent);
}

void WKovoRequest::getResponseBody(std::string& body) const {
  if (_sink) {
    _sink->getContents(body);
  }
}

std::uint64_t WKovoRequest::getBodyLength() {
  if (!_source) {
    _source = makeSource();
  }
  return _source ? _source->getContentLength() : 0;
}

bool WKovoRequest::isRangedDownload() const {
  return _operation == OP_DOWNLOAD_RANGE || _operation == OP_DOWNLOAD_FILE_RANGE;
}

KovoNumberedRange WKovoRequest::getRange() const {
  ScopedLock guard(_rangeLock);
  return _range;
}

void WKovoRequest::setRange(const KovoNumberedRange& range) {
  ScopedLock guard(_rangeLock);
  _range = range;
  _isRanged = true;
}

void WKovoRequest::setProxyCredentials(const std::string& username, const std::string& password) {
  _proxyUsername = username;
  _proxyPassword = password;
}

void WKovoRequest::becomeWholeDownload() {
  _operation = _operation == OP_DOWNLOAD_FILE_RANGE ? OP_DOWNLOAD_FILE : OP_DOWNLOAD;
  ScopedLock guard(_rangeLock);
  _range = KovoNumberedRange();
  _isRanged = false;
}

void WKovoRequest::startOperation() {
  _finished = false;
  try {
    if (prepareOperation() && !serveFromCache()) {
      HttpRequestMessage message;
      std::optional<SourceRequestBody> body;
      if (buildMessage(message, body)) {
        exchange(message, body ? &*body : nullptr);
        checkCompletion();
      }
    }
  } catch (const std::exception& exception) {
    notifyError(std::string("startOperation - Unexpected exception caught: ") + exception.what(),
                KOVO_ERROR_OPERATION_ERROR);
  } catch (...) {
    notifyError("startOperation - Unexpected exception caught (untyped)",
                KOVO_ERROR_OPERATION_ERROR);
  }
  endAttempt();
}

void WKovoRequest::endAttempt() {
  _httpClient.reset();
  _readBuffer = ByteBlock();
  _cacheBody.reset();
  // An error body that went to the client is an answer; everything else that is not complete will
  // be moved again, or never.
  const bool answered = failedWithHttpStatus() && !_parentTransfer.isChunkingAllowed();
  if (!_complete && !answered) {
    if (_source) {
      _source->discard();
    }
    if (_sink) {
      _sink->discard();
    }
  }
  _finished = true;
}

void WKovoRequest::restoreGroundState() {
  _httpClient.reset();
  _source.reset();
  _sink.reset();
  _responseHeaders.clear();
  _noErrorYet = true;
  _errorMessage.clear();
  _formParameters.clear();
  _gzipEncoded = false;
  _encoded = false;
  _promisedLength.reset();
  _receivedLength = 0;
  _readPosition = 0;
  _deliveredLength = 0;
  _deliveredWholeResource = false;
  _complete = false;
}

void WKovoRequest::notifyError(const std::string& message, kovo_error code) {
  if (!_noErrorYet) {
    KOVO_LOG(KOVO_LOG_INFO, "kovo::WKovoRequest::notifyError",
             "KovoRequest (%s to %s) Secondary Error: %d %s",
             KovoHttpUtils::toString(_httpVerb).c_str(), KovoHttpUtils::redactUrl(_inURL).c_str(),
             static_cast<int>(code), message.c_str());
    return;
  }
  _noErrorYet = false;
  _errorCode = code;
  doNotifyError(message, code);
}

void WKovoRequest::doNotifyError(const std::string& message, kovo_error code) {
  KOVO_ASSERT(code != KOVO_ERROR_NONE, "errorCode != KOVO_ERROR_NONE");
  const auto error = makeKovoError(code, message);
  if (_parentTransfer.shouldRetryChunk(_range.number, error, makeKovoHTTPError(0, {}))) {
    KOVO_LOG(KOVO_LOG_WARN, "kovo::WKovoRequest::doNotifyError",
             "Chunk %d failed - Retrying. ErrorCode: %d ErrorMessage: %s", _range.number,
             static_cast<int>(code), message.c_str());
    _noErrorYet = true;
  } else {
    _parentTransfer.setError(error);
  }
}

void WKovoRequest::doNotifyHTTPError(const std::string& message, std::uint32_t status,
                                     const std::string& body) {
  KOVO_ASSERT(_parentTransfer.isChunkingAllowed(), "_parentTransfer.isChunkingAllowed()");
  const auto httpError = std::make_shared<KovoHTTPError>(KovoHTTPError{status, message, body});
  _errorCode = KOVO_ERROR_CHUNK_HTTP_ERROR;
  if (_parentTransfer.shouldRetryChunk(
          _range.number,
          makeKovoError(KOVO_ERROR_CHUNK_HTTP_ERROR, "Kovo Error Chunk failed with HTTP Error"),
          httpError)) {
    KOVO_LOG(KOVO_LOG_WARN, "kovo::WKovoRequest::doNotifyHTTPError",
             "Chunk %d failed - Retrying. HTTPCode: %d HTTPMessage: %s", _range.number,
             static_cast<int>(status), message.c_str());
    _noErrorYet = true;
    return;
  }
  _errorCode = KOVO_ERROR_CHUNK_RETRY_FAILED;
  _parentTransfer.setError(
      makeKovoError(KOVO_ERROR_CHUNK_RETRY_FAILED, "Kovo Error Chunk failed with Error"));
}

}  // namespace kovo
