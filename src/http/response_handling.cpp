#include <algorithm>
#include <string_view>
#include <utility>

#include "body/gzip_input_filter.h"
#include "body/memory_sink.h"
#include "body/string_stream_sink.h"
#include "core/kovo_error.h"
#include "http/kovo_http_utils.h"
#include "http/retry_visitor.h"
#include "http/wkovo_request.h"
#include "log/kovo_log.h"
#include "scheduling/kovo_stats_aggregator.h"

namespace kovo {
namespace {

// Small enough for the throttle to act between reads.
constexpr std::size_t kReadSize = 32768;

// As much as is read of a body that nobody gets whole: an answer that is dropped, an error
// document, a protocol's answer. The server decides how much it sends.
constexpr std::uint64_t kMostUndeliveredBytes = StringStreamSink::kCapacity;

constexpr char kSendName[] = "kovo::WKovoRequest::sendHttpRequest";
constexpr char kValidateName[] = "kovo::WKovoRequest::validateResponse";

bool isHttpError(std::uint32_t status) {
  return status >= 400 && status <= 599;
}

// word is in lower case. The host's locale has no say in it.
bool containsIgnoreCase(const std::string& text, std::string_view word) {
  const auto isSame = [](char a, char b) {
    return (a >= 'A' && a <= 'Z' ? a + ('a' - 'A') : a) == b;
  };
  return std::search(text.begin(), text.end(), word.begin(), word.end(), isSame) != text.end();
}

// Headers that describe the encoded body, and so nothing that leaves the decoder.
bool describesEncodedBody(const std::string& name) {
  constexpr const char* kNames[] = {
      http::kContentLength, http::kEntityTag,    http::kContentMD5,     http::kContentLocation,
      http::kContentRange,  http::kLastModified, http::kContentEncoding};
  return std::any_of(std::begin(kNames), std::end(kNames), [&name](const char* described) {
    return KovoHttpUtils::equalsIgnoreCase(name, described);
  });
}

// Offsets and lengths are signed 64-bit numbers throughout.
bool isLength(const std::string& text) {
  constexpr std::size_t kSafeDigits = 18;
  const auto digits = text.find_first_not_of('0') == std::string::npos
                          ? std::size_t{1}
                          : text.size() - text.find_first_not_of('0');
  return !text.empty() && text.find_first_not_of("0123456789") == std::string::npos &&
         digits <= kSafeDigits;
}

unsigned long toUnsigned(std::int64_t value) {
  return static_cast<unsigned long>(value);
}

}  // namespace

void WKovoRequest::exchange(const HttpRequestMessage& message, const SourceRequestBody* body) {
  if (isCancelled()) {
    return;
  }
  _httpClient = _client.createExchange(_interrupt);
  try {
    const HttpResponseHead& head = _httpClient->send(message);
    if (validateResponse(head)) {
      KOVO_LOG(KOVO_LOG_ALWAYS, "kovo::WKovoRequest::getResponseStream",
               ">>> debug %p got stream, %s", static_cast<void*>(this),
               KovoHttpUtils::redactUrl(_inURL).c_str());
      readData();
    }
  } catch (const HttpFailure& failure) {
    if (failedWithHttpStatus() && !_parentTransfer.isChunkingAllowed()) {
      _noErrorYet = true;  // the client would take half an error document for the answer
    }
    if (body != nullptr && body->failure()) {
      notifyError(body->failure()->message, body->failure()->code);
      return;
    }
    const std::string text = std::string("Error: ") + failure.what();
    notifyError(text, failure.code);
    KOVO_LOG(KOVO_LOG_ERROR, kSendName, "KOVO Receiving response error\n%s", text.c_str());
  } catch (const HttpCancelled& cancelled) {
    if (!isCancelled()) {
      const std::string text = std::string("Error: ") + cancelled.what();
      notifyError(text, _errorCode != 0 ? _errorCode : kovo_error{KOVO_ERROR_CANCELLED});
      KOVO_LOG(KOVO_LOG_ERROR, kSendName, "%s", text.c_str());
    }
  }
}

bool WKovoRequest::processStatus(std::uint32_t status) {
  _statusCode = _parentTransfer.filterHttpStatus(status);
  if (!RetryVisitor::shouldProceed(_retryParams, *this, _statusCode)) {
    return false;
  }
  // The exchange has answered the proxy with the credentials already, and they were refused.
  return !_retryParams.proxyAuthRetry && !_retryParams.retry;
}

bool WKovoRequest::validateResponse(const HttpResponseHead& head) {
  // Deciding about the status may drop the range.
  const KovoNumberedRange requested = _range;
  const bool ranged = isRangedDownload();
  const bool proceed = processStatus(head.status);
  if (isCancelled()) {
    return false;
  }
  const KovoRange whole = _parentTransfer.getRange();
  const bool startsElsewhere = whole.start != requested.start;
  if (!proceed) {
    if (_retryParams.retry && _retryParams.attempts < RetryParams::kLimit) {
      return false;
    }
    if (_statusCode == 416 && ranged && startsElsewhere) {
      KOVO_LOG(KOVO_LOG_WARN, kValidateName,
               "Ignoring HTTP_RANGE_NOT_SATISFIABLE status. Transfer Range %lu:%lu Request Range "
               "%lu:%lu",
               toUnsigned(whole.start), toUnsigned(whole.length), toUnsigned(requested.start),
               toUnsigned(requested.length));
      return false;
    }
    if (!isHttpError(_statusCode)) {
      notifyError("Unexpected HTTP status: " + std::to_string(_statusCode),
                  KOVO_ERROR_OPERATION_ERROR);
      return false;
    }
    recordHttpError(head, _retryParams.retry ? "Retry Limit Exceeded"
                                             : "Initial Request Failed (No Retry Attempted)");
  } else if (ranged && _statusCode != 206) {
    if (startsElsewhere) {
      KOVO_LOG(KOVO_LOG_WARN, kValidateName,
               "Ignoring full resource transfer for out of range request. Transfer Range %lu:%lu "
               "Request Range %lu:%lu",
               toUnsigned(whole.start), toUnsigned(whole.length), toUnsigned(requested.start),
               toUnsigned(requested.length));
      return false;
    }
    _sink->reset();
  }
  _parentTransfer.onStatusLine(*this, head.version, _statusCode, head.reason);
  return processHeaders(head);
}

void WKovoRequest::recordHttpError(const HttpResponseHead& head, const char* text) {
  _errorMessage = std::to_string(_statusCode) + " " +
                  (head.reason.empty() ? "HTTP error" : head.reason) + ". " + text;
  _noErrorYet = false;
  if (_parentTransfer.isChunkingAllowed()) {
    _sink = std::make_unique<StringStreamSink>();
  } else {
    _sink = std::make_unique<MemorySink>(
        _callbackHandler, _isRanged ? static_cast<std::uint64_t>(_range.start) : 0, false);
  }
}

bool WKovoRequest::processHeaders(const HttpResponseHead& head) {
  if (!checkLengths(head.headers)) {
    return false;
  }
  takeHeaders(head.headers);
  if (_gzipEncoded && _parentTransfer.isGzipWanted()) {
    _responseHeaders.erase(
        std::remove_if(_responseHeaders.begin(), _responseHeaders.end(),
                       [](const Header& header) { return describesEncodedBody(header.first); }),
        _responseHeaders.end());
    _sink = makeGzipFilteredSink(std::move(_sink));
  }
  if (!_responseHeaders.empty()) {
    try {
      _parentTransfer.onResponseHeaders(*this, _responseHeaders, !_noErrorYet);
    } catch (const std::exception& exception) {
      notifyError(std::string("Failed to process the response headers: ") + exception.what(),
                  KOVO_ERROR_OPERATION_ERROR);
      return false;
    }
  }
  // Without any header as received, there is no telling what the body is.
  return !head.headers.empty();
}

bool WKovoRequest::checkLengths(const HeaderList& headers) {
  const bool partial = isRangedDownload() && isSuccess();
  bool hasContentRange = false;
  bool isMultipart = false;
  const bool unasked = isUnaskedPart();
  bool isWhole = false;
  for (const auto& [name, value] : headers) {
    if (partial && KovoHttpUtils::equalsIgnoreCase(name, http::kContentRange)) {
      hasContentRange = true;
      if (!checkContentRange(value)) {
        return false;
      }
    } else if (unasked && KovoHttpUtils::equalsIgnoreCase(name, http::kContentRange)) {
      std::uint64_t first = 0;
      std::uint64_t last = 0;
      std::string total;
      isWhole = KovoHttpUtils::parseContentRangeHeader(value, first, last, total) && first == 0 &&
                total == std::to_string(last + 1);
      _promisedLength = last + 1;
    } else if (KovoHttpUtils::equalsIgnoreCase(name, http::kContentLength) && !isLength(value)) {
      notifyError("Invalid content-length header: " + value, KOVO_ERROR_OPERATION_ERROR);
      return false;
    } else if (KovoHttpUtils::equalsIgnoreCase(name, http::kContentType)) {
      isMultipart = containsIgnoreCase(value, "multipart/byteranges");
    }
  }
  // Bytes whose place nobody tells cannot be written anywhere.
  if (partial && _statusCode == 206 && (!hasContentRange || isMultipart)) {
    return reportInvalidContentRange({});
  }
  if (unasked && !isWhole) {
    return reportInvalidContentRange("of a part nobody asked for");
  }
  return true;
}

bool WKovoRequest::isUnaskedPart() const {
  // Of a whole download, a part would be taken for the resource.
  return _statusCode == 206 && isSuccess() && !_asksForPart &&
         (_operation == OP_DOWNLOAD || _operation == OP_DOWNLOAD_FILE);
}

bool WKovoRequest::checkContentRange(const std::string& value) {
  std::uint64_t first = 0;
  std::uint64_t last = 0;
  std::string total;
  if (!KovoHttpUtils::validateContentRangeHeader(value, static_cast<std::uint64_t>(_range.start),
                                                 static_cast<std::uint64_t>(_range.length)) ||
      !KovoHttpUtils::parseContentRangeHeader(value, first, last, total) ||
      !isLength(std::to_string(last)) || !(total.front() == '*' || isLength(total))) {
    return reportInvalidContentRange(value);
  }
  if (_statusCode == 206) {
    _promisedLength = last - first + 1;
  }
  return true;
}

bool WKovoRequest::reportInvalidContentRange(const std::string& value) {
  notifyError("Invalid content-range header: " + value +
                  " received for requested range: bytes=" + getRequestedRangeText(),
              KOVO_ERROR_OPERATION_ERROR);
  _responseHeaders.clear();
  return false;
}

std::string WKovoRequest::getRequestedRangeText() const {
  std::string text = std::to_string(_range.start) + "-";
  if (_range.length != 0) {
    text += std::to_string(_range.start + _range.length - 1);
  }
  return text;
}

void WKovoRequest::takeHeaders(const HeaderList& headers) {
  _responseHeaders.clear();
  const std::string* contentLength = nullptr;
  for (const Header& header : headers) {
    if (KovoHttpUtils::equalsIgnoreCase(header.first, http::kContentLength)) {
      contentLength = &header.second;
      continue;
    }
    if (KovoHttpUtils::equalsIgnoreCase(header.first, http::kContentEncoding)) {
      _encoded = _encoded || !KovoHttpUtils::equalsIgnoreCase(header.second, "identity");
      _gzipEncoded = _gzipEncoded || containsIgnoreCase(header.second, http::kGzip);
    }
    _responseHeaders.push_back(header);
  }
  // Last, because what follows takes the first header that tells the resource's size.
  if (contentLength != nullptr) {
    _responseHeaders.emplace_back(http::kContentLength, *contentLength);
  }
}

bool WKovoRequest::isSuccess() const {
  return _noErrorYet && _statusCode >= 200 && _statusCode <= 299;
}

void WKovoRequest::readData() {
  if (_httpVerb == KOVO_HTTP_HEAD) {
    finishBody();
    return;
  }
  startCaching();
  _readBuffer = ByteBlock::allocate();
  _readPosition = 0;
  auto& stats = _parentTransfer.getStatsAggregator();
  for (;;) {
    if (isCancelled()) {
      return;
    }
    std::size_t room = 0;
    const std::size_t size = getReadSize(room);
    const std::size_t count = _httpClient->read(_readBuffer.data() + _readPosition, size, room);
    if (count == 0) {
      break;
    }
    _readPosition += count;
    _receivedLength += count;
    if (isTooLong()) {
      return;
    }
    if (_readPosition == ByteBlock::kCapacity) {
      flushReadBuffer();
    }
    stats.recordChunk(count, false, &_interrupt);
    if (_receivedLength >= kMostUndeliveredBytes && isBodyDropped()) {
      break;
    }
  }
  flushReadBuffer();
  finishBody();
}

std::size_t WKovoRequest::getReadSize(std::size_t& room) {
  room = ByteBlock::kCapacity - _readPosition;
  std::size_t size = std::min(kReadSize, room);
  const std::uint64_t target = _parentTransfer.getDownloadTargetSpeed();
  if (target != 0) {
    // Every worker gets its share, and nothing is taken from the network ahead of it.
    const std::uint64_t workers =
        std::max<std::uint32_t>(_parentTransfer.getWorkerPoolUpperLimit(), 1);
    const std::uint64_t share = std::max<std::uint64_t>(target / workers, 1);
    size = static_cast<std::size_t>(std::min<std::uint64_t>(size, share));
    room = size;
  }
  return size;
}

bool WKovoRequest::isTooLong() {
  if (_promisedLength && _receivedLength > *_promisedLength) {
    notifyError("Response body too long: more than " + std::to_string(*_promisedLength) +
                    " bytes received for requested range bytes=" + getRequestedRangeText(),
                KOVO_ERROR_TOO_MUCH_DATA);
    return true;
  }
  const bool isProtocolAnswer = _operation == OP_UPLOAD_INITIALISE ||
                                (_operation == OP_UPLOAD_FINALISE && _discardResponseBody);
  if (isProtocolAnswer && isSuccess() && _receivedLength > kMostUndeliveredBytes) {
    notifyError("Response body too long: more than " + std::to_string(kMostUndeliveredBytes) +
                    " bytes received",
                KOVO_ERROR_TOO_MUCH_DATA);
    return true;
  }
  return false;
}

// Nobody gets more of this body than what has been read.
bool WKovoRequest::isBodyDropped() const {
  return failedWithHttpStatus() ? _parentTransfer.isChunkingAllowed()
                                : _discardResponseBody && _operation != OP_UPLOAD_FINALISE;
}

void WKovoRequest::flushReadBuffer() {
  const std::size_t size = std::exchange(_readPosition, 0);
  if (size == 0 || (isBodyDropped() && !failedWithHttpStatus())) {
    return;
  }
  if (_cacheBody) {
    _cacheBody->append(_readBuffer.data(), size);
  }
  _sink->writeBlock(_readBuffer, size);
  if (isSuccess()) {
    _deliveredLength += size;
  }
  if (!_readBuffer) {
    _readBuffer = ByteBlock::allocate();
  }
}

void WKovoRequest::finishBody() {
  if (_promisedLength && _receivedLength < *_promisedLength && _httpVerb != KOVO_HTTP_HEAD) {
    notifyError("Response body incomplete: " + std::to_string(_receivedLength) +
                    " bytes received from " + std::to_string(*_promisedLength) +
                    " expected for requested range bytes=" + getRequestedRangeText(),
                KOVO_ERROR_NOT_ENOUGH_DATA);
    return;
  }
  _sink->finish();
  _complete = isSuccess();
  _deliveredWholeResource =
      _complete && (_statusCode == 200 || _statusCode == 203) && _httpVerb == KOVO_HTTP_GET;
  if (_complete && _cacheBody) {
    // Empty for a transfer that has just been cancelled.
    if (const std::string key = getCacheKey(); !key.empty()) {
      _parentTransfer.getGetCache()->storeBody(key, _responseHeaders, std::move(*_cacheBody));
    }
  }
}

void WKovoRequest::startCaching() {
  _cacheBody.reset();
  if (_promisedLength && !_encoded && isCacheUsable() &&
      _parentTransfer.getGetCache()->isCacheable(_responseHeaders)) {
    _cacheBody.emplace();
  }
}

void WKovoRequest::checkCompletion() {
  if (_noErrorYet || _errorMessage.empty() || !isHttpError(_statusCode) ||
      !_parentTransfer.isChunkingAllowed()) {
    return;
  }
  std::string body;
  _sink->getContents(body);
  doNotifyHTTPError(_errorMessage, _statusCode, body);
}

}  // namespace kovo
