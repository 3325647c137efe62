#include "transfer.h"

#include <strings.h>

#include <algorithm>
#include <charconv>
#include <cstring>

#include "failure.h"
#include "failure_class.h"
#include "url_text.h"

namespace kovo::cli {

namespace {

constexpr std::size_t kLongestServerText = 2048;

void copyText(char* target, std::size_t capacity, const std::string& text) {
  const std::size_t length = std::min(text.size(), capacity - 1);
  std::memcpy(target, text.data(), length);
  target[length] = 0;
}

}  // namespace

// The C functions the engine calls; each leads to the transfer that is its context.
class Transfer::Callbacks {
 public:
  static Transfer& of(void* context) { return *static_cast<Transfer*>(context); }

  static void completion(kovo_instance, void* context) {
    of(context).end(End::kCompleted);
    of(context).waitWhileHeld();
  }
  static void cancellation(kovo_instance, void* context) { of(context).end(End::kCancelled); }
  static void error(kovo_instance, std::uint32_t code, const char* message, void* context) {
    of(context).onError(code, message);
  }
  static void statusLine(kovo_instance, const char*, std::uint32_t status, const char* reason,
                         void* context) {
    of(context).onStatusLine(status, reason);
  }
  static void responseHeaders(kovo_instance, const kovo_header_ref* headers, std::uint32_t count,
                              void* context) {
    of(context).onResponseHeaders(headers, count);
  }
  static void responseBody(kovo_instance, std::uint64_t, const std::uint8_t* data,
                           std::uint64_t size, void* context) {
    of(context).onResponseBody(data, size);
  }
  static void progress(kovo_instance, std::uint64_t bytes, std::uint64_t total, void* context) {
    of(context).onProgress(bytes, total);
  }
  static void monitor(kovo_instance, std::uint32_t type, const void* data, std::uint64_t length,
                      void* context) {
    of(context).onMonitor(type, data, length);
  }
  static void requestHeaders(kovo_instance, kovo_header* headers, std::uint32_t capacity,
                             std::uint32_t* count, void* context) {
    of(context).onRequestHeaders(headers, capacity, count);
  }
  static void certificatePolicy(kovo_instance, const char*, std::uint32_t* validateChain,
                                void* context) {
    *validateChain = of(context)._options.validateCertificates ? 1 : 0;
  }
  static void timeout(kovo_instance, std::uint32_t* seconds, void* context) {
    *seconds = of(context)._options.timeoutSeconds;
  }
  static void serverType(kovo_instance, std::uint32_t* type, void* context) {
    *type = of(context)._options.serverType;
  }
  static std::int32_t chunkErrorRetry(kovo_instance instance, kovo_chunk_type type,
                                      std::uint32_t number, std::uint32_t code,
                                      std::uint32_t httpStatus, const char* message,
                                      void* context) {
    return of(context).onRequestFailed(instance, {type, number, code, httpStatus, message}) ? 1 : 0;
  }
};

void Transfer::registerCallbacks(kovo_instance instance) {
  kovoRegisterCompletionCallback(instance, &Callbacks::completion);
  kovoRegisterCancellationCallback(instance, &Callbacks::cancellation);
  kovoRegisterErrorCallback(instance, &Callbacks::error);
  kovoRegisterStatusLineCallback(instance, &Callbacks::statusLine);
  kovoRegisterResponseHeaderCallback(instance, &Callbacks::responseHeaders);
  kovoRegisterResponseBodyCallback(instance, &Callbacks::responseBody);
  kovoRegisterProgressCallback(instance, &Callbacks::progress);
  kovoRegisterMonitorCallback(instance, &Callbacks::monitor);
  kovoRegisterAddHeaderCallback(instance, &Callbacks::requestHeaders);
  kovoRegisterSSLCertificatePolicyCallback(instance, &Callbacks::certificatePolicy);
  kovoRegisterSetTimeoutCallback(instance, &Callbacks::timeout);
  kovoRegisterSetServerTypeCallback(instance, &Callbacks::serverType);
  kovoRegisterChunkErrorRetryCallback(instance, &Callbacks::chunkErrorRetry);
}

Transfer::Transfer(const TransferOptions& options, EventGate& gate)
    : _options(options), _gate(gate), _retryPolicy(options.retries) {}

void Transfer::accepted(kovo_instance instance, kovo_error result, kovo_async_token token) {
  if (result != KOVO_ERROR_NONE) {
    throw Failure(ExitCode::kOther, std::string("the transfer engine refused the transfer: ") +
                                        kovoErrorString(result));
  }
  {
    const std::lock_guard<std::mutex> hold(_mutex);
    _instance = instance;
    _token = token;
  }
  _changed.notify_all();
}

void Transfer::startDownload(kovo_instance instance, const std::string& url,
                             const std::string& path) {
  // Always in chunks: only a chunked download can be resumed.
  kovo_async_token token = NOTHING_ASYNC_TOKEN;
  const kovo_error result =
      kovoDownload(instance, url.c_str(), path.c_str(), KOVO_CHUNKING_ALWAYS, 0, this, &token);
  accepted(instance, result, token);
}

void Transfer::startUpload(kovo_instance instance, kovo_http_verb verb, const std::string& url,
                           const std::string& path) {
  kovo_async_token token = NOTHING_ASYNC_TOKEN;
  const kovo_error result =
      kovoUpload(instance, verb, url.c_str(), path.c_str(), KOVO_CHUNKING_DEFAULT, 0, this, &token);
  accepted(instance, result, token);
}

Transfer::Status Transfer::status() const {
  const std::lock_guard<std::mutex> hold(_mutex);
  return _status;
}

bool Transfer::cancel() {
  kovo_instance instance = nullptr;
  kovo_async_token token = NOTHING_ASYNC_TOKEN;
  {
    const std::lock_guard<std::mutex> hold(_mutex);
    _stopping = true;
    instance = _instance;
    token = _token;
  }
  _changed.notify_all();
  return kovoCancel(instance, token) != KOVO_ERROR_NOT_CANCELLABLE;
}

void Transfer::hold(bool held) {
  const std::lock_guard<std::mutex> lock(_mutex);
  _held = held;
  _changed.notify_all();
}

void Transfer::waitWhileHeld() {
  std::unique_lock<std::mutex> lock(_mutex);
  _changed.wait(lock, [this] { return !_held; });
}

void Transfer::end(End how) {
  {
    const std::lock_guard<std::mutex> hold(_mutex);
    _status.end = how;
  }
  _gate.notify();
}

void Transfer::onError(std::uint32_t code, const char* message) {
  {
    const std::lock_guard<std::mutex> hold(_mutex);
    // What the failed request said is closer to the cause than the engine's summary of it.
    if (_status.errorCode == 0) {
      _status.errorCode = code;
      _status.errorMessage = message;
    }
    _status.end = End::kFailed;
  }
  _gate.notify();
}

void Transfer::onStatusLine(std::uint32_t statusCode, const char* reason) {
  const std::lock_guard<std::mutex> hold(_mutex);
  _status.httpStatus = statusCode;
  _status.reason = reason;
}

void Transfer::onResponseHeaders(const kovo_header_ref* headers, std::uint32_t count) {
  const std::lock_guard<std::mutex> hold(_mutex);
  for (std::uint32_t i = 0; i < count; ++i) {
    if (::strcasecmp(headers[i].name, "Retry-After") != 0) continue;
    unsigned seconds = 0;
    const char* const value = headers[i].value;
    // A date instead of a number leaves the usual pause.
    std::from_chars(value, value + std::strlen(value), seconds);
    _retryAfter = std::chrono::seconds(seconds);
  }
}

void Transfer::onResponseBody(const std::uint8_t* data, std::uint64_t size) {
  const std::lock_guard<std::mutex> hold(_mutex);
  const std::size_t room =
      kLongestServerText - std::min(_status.serverText.size(), kLongestServerText);
  for (std::size_t i = 0; i < std::min<std::uint64_t>(size, room); ++i) {
    _status.serverText += static_cast<char>(data[i]);
  }
}

void Transfer::onProgress(std::uint64_t bytes, std::uint64_t total) {
  const std::lock_guard<std::mutex> hold(_mutex);
  _status.bytesTransferred = std::max(_status.bytesTransferred, bytes);
  _status.bytesTotal = total;
}

void Transfer::onMonitor(std::uint32_t, const void* data, std::uint64_t length) {
  // Both kinds of record hold the running workers at this place.
  constexpr std::size_t kWorkerCount = 28;
  if (length < kWorkerCount + sizeof(std::uint32_t)) return;
  std::uint32_t workers = 0;
  std::memcpy(&workers, static_cast<const unsigned char*>(data) + kWorkerCount, sizeof workers);
  const std::lock_guard<std::mutex> hold(_mutex);
  _status.connections = workers;
}

void Transfer::onRequestHeaders(kovo_header* headers, std::uint32_t capacity,
                                std::uint32_t* count) const {
  std::uint32_t filled = 0;
  for (const auto& [name, value] : _options.headers) {
    if (filled == capacity) break;
    copyText(headers[filled].name, sizeof headers[filled].name, name);
    copyText(headers[filled].value, sizeof headers[filled].value, value);
    ++filled;
  }
  *count = filled;
}

void Transfer::noteCause(const RequestFailure& failure) {
  if (_status.errorCode != 0) return;
  _status.errorCode = failure.code;
  _status.errorMessage = failure.message;
  if (failure.httpStatus == 0) return;
  _status.httpStatus = failure.httpStatus;
  if (_status.httpStatus >= 400 && _status.serverText.empty()) {
    _status.serverText = failure.message.substr(0, kLongestServerText);
  }
}

bool Transfer::onRequestFailed(kovo_instance instance, const RequestFailure& failure) {
  kovo_async_token token = NOTHING_ASYNC_TOKEN;
  {
    std::unique_lock<std::mutex> hold(_mutex);
    if (!_stopping) {
      const bool serverSeen = _status.httpStatus != 0 || failure.httpStatus != 0;
      const auto pause = _retryPolicy.next(failure, serverSeen, _retryAfter);
      if (pause) {
        ++_status.retriesWaiting;
        ++_status.retriesMade;
        _gate.notify();
        // Only this request's worker waits here; the others go on.
        _changed.wait_for(hold, *pause, [this] { return _stopping; });
        --_status.retriesWaiting;
        if (!_stopping) return true;
      } else {
        // With nothing to keep, the error callback may tell the cause.
        const bool nothingStored = _status.bytesTransferred == 0 && !_options.foundPartial;
        if (nothingStored && failure.httpStatus == 0) return false;
        noteCause(failure);
        _stopping = true;
      }
    }
    _changed.wait(hold, [this] { return _token != NOTHING_ASYNC_TOKEN; });
    token = _token;
  }
  // An error would end with the partial file deleted; a cancelled transfer keeps it for the next
  // run. Requests that wait out their pauses are to end now, too.
  _changed.notify_all();
  kovoCancel(instance, token);
  return false;
}

}  // namespace kovo::cli
