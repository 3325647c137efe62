#include "transfer.h"

#include <strings.h>

#include <algorithm>
#include <charconv>
#include <cstring>
#include <utility>

#include "paced_file.h"

namespace kovo::cli {

namespace {

constexpr std::size_t kLongestServerText = 2048;

void copyText(char* target, std::size_t capacity, const std::string& text) {
  const std::size_t length = std::min(text.size(), capacity - 1);
  std::memcpy(target, text.data(), length);
  target[length] = 0;
}

template <typename Number>
Number numberAt(const void* record, std::size_t offset) {
  Number number = 0;
  std::memcpy(&number, static_cast<const unsigned char*>(record) + offset, sizeof number);
  return number;
}

}  // namespace

Transfer::Transfer(std::uint32_t id, const TransferOptions& options, TransferHooks hooks,
                   EventGate& gate, TransferObserver& observer)
    : _id(id),
      _options(options),
      _hooks(std::move(hooks)),
      _gate(gate),
      _observer(observer),
      _retryPolicy(options.retries) {}

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
  const kovo_error result = kovoDownload(instance, url.c_str(), path.c_str(), KOVO_CHUNKING_ALWAYS,
                                         _options.priority, this, &token);
  accepted(instance, result, token);
}

void Transfer::startDownloadToSink(kovo_instance instance, const std::string& url,
                                   std::uint64_t first, std::uint64_t length) {
  kovo_async_token token = NOTHING_ASYNC_TOKEN;
  const kovo_error result =
      first == 0 && length == 0
          ? kovoDownloadToMemory(instance, url.c_str(), KOVO_CHUNKING_ALWAYS, _options.priority,
                                 this, &token)
          : kovoDownloadRangeToMemory(instance, url.c_str(), first, length, KOVO_CHUNKING_ALWAYS,
                                      _options.priority, this, &token);
  accepted(instance, result, token);
}

void Transfer::startUpload(kovo_instance instance, kovo_http_verb verb, const std::string& url,
                           const std::string& path) {
  kovo_async_token token = NOTHING_ASYNC_TOKEN;
  const kovo_error result = kovoUpload(instance, verb, url.c_str(), path.c_str(),
                                       KOVO_CHUNKING_DEFAULT, _options.priority, this, &token);
  accepted(instance, result, token);
}

void Transfer::startUploadOfBody(kovo_instance instance, kovo_http_verb verb,
                                 const std::string& url) {
  kovo_async_token token = NOTHING_ASYNC_TOKEN;
  const kovo_error result =
      kovoUploadFromMemory(instance, verb, url.c_str(), _options.priority, this, &token);
  accepted(instance, result, token);
}

void Transfer::startRequest(kovo_instance instance, kovo_http_verb verb, const std::string& url,
                            bool acceptGzip) {
  kovo_async_token token = NOTHING_ASYNC_TOKEN;
  const kovo_error result = kovoSendRequest(instance, verb, url.c_str(), _options.priority,
                                            acceptGzip ? 1 : 0, this, &token);
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
    if (_status.end != End::kRunning) return true;  // about to end by itself
    instance = _instance;
    token = _token;
  }
  _changed.notify_all();
  if (_hooks.sink != nullptr) _hooks.sink->stopWaiting(true);
  return kovoCancel(instance, token) != KOVO_ERROR_NOT_CANCELLABLE;
}

void Transfer::onCompletion() {
  {
    const std::lock_guard<std::mutex> hold(_mutex);
    _status.end = End::kFinishing;
    if (!isSuccess()) {
      _status.end = End::kFailed;
      _gate.notify();
      return;
    }
  }
  _gate.notify();
  End how = End::kCompleted;
  try {
    if (_hooks.complete) _hooks.complete();
  } catch (const Failure& failure) {
    const std::lock_guard<std::mutex> hold(_mutex);
    _status.failure.emplace(failure);
    how = End::kFailed;
  } catch (const Interrupted&) {
    {
      const std::lock_guard<std::mutex> hold(_mutex);
      _status.holdsRecord = true;
    }
    end(End::kCancelled);
    std::unique_lock<std::mutex> hold(_mutex);
    _changed.wait(hold, [] { return false; });
  }
  end(how);
}

void Transfer::end(End how) {
  {
    const std::lock_guard<std::mutex> hold(_mutex);
    _status.end = how;
    // Under the lock: the main thread may end the engine as soon as it sees the end.
    _gate.notify();
  }
}

void Transfer::onError(std::uint32_t code, const char* message) {
  const std::lock_guard<std::mutex> hold(_mutex);
  // What the failed request said is closer to the cause than the engine's summary of it.
  if (_status.errorCode == 0) {
    _status.errorCode = code;
    _status.errorMessage = message;
  }
  _status.end = End::kFailed;
  _gate.notify();
}

void Transfer::onStatusLine(std::uint32_t statusCode, const char* reason) {
  const std::lock_guard<std::mutex> hold(_mutex);
  _status.httpStatus = statusCode;
  _status.reason = reason;
}

void Transfer::onResponseHeaders(const kovo_header_ref* headers, std::uint32_t count) {
  HeaderList list;
  std::uint32_t status = 0;
  std::string reason;
  {
    const std::lock_guard<std::mutex> hold(_mutex);
    for (std::uint32_t i = 0; i < count; ++i) {
      list.emplace_back(headers[i].name, headers[i].value);
      if (::strcasecmp(headers[i].name, "Retry-After") != 0) continue;
      unsigned seconds = 0;
      const char* const value = headers[i].value;
      // A date instead of a number leaves the usual pause.
      std::from_chars(value, value + std::strlen(value), seconds);
      _retryAfter = std::chrono::seconds(seconds);
    }
    status = _status.httpStatus;
    reason = _status.reason;
  }
  _observer.answered(_id, status, reason, list);
  if (!_hooks.inspect || status < 200 || status > 299) return;
  try {
    _hooks.inspect(list);
  } catch (const Failure& failure) {
    giveUp(failure);
  }
}

void Transfer::onResponseBody(std::uint64_t offset, const std::uint8_t* data, std::uint64_t size) {
  bool forSink = false;
  {
    const std::lock_guard<std::mutex> hold(_mutex);
    if (!isSuccess()) {
      const std::size_t room =
          kLongestServerText - std::min(_status.serverText.size(), kLongestServerText);
      for (std::size_t i = 0; i < std::min<std::uint64_t>(size, room); ++i) {
        _status.serverText += static_cast<char>(data[i]);
      }
    }
    forSink =
        _hooks.sink != nullptr && (isSuccess() || _hooks.bodyOfErrors) && !_status.failure && size;
  }
  if (!forSink) return;
  try {
    _hooks.sink->write(offset, data, size);
  } catch (const Failure& failure) {
    giveUp(failure);
  }
}

std::uint64_t Transfer::bodyLength() const {
  return _hooks.file != nullptr ? _hooks.file->size() : _hooks.body.size();
}

std::uint64_t Transfer::onRequestBody(std::uint64_t offset, std::uint8_t* buffer,
                                      std::uint64_t most) {
  if (_hooks.file != nullptr) {
    try {
      return _hooks.file->read(offset, buffer, most);
    } catch (const Failure& failure) {
      giveUp(failure);
      return 0;
    }
  }
  const std::string_view body = _hooks.body;
  if (offset >= body.size()) return 0;
  const std::uint64_t count = std::min<std::uint64_t>(most, body.size() - offset);
  std::memcpy(buffer, body.data() + offset, count);
  return count;
}

void Transfer::onProgress(std::uint64_t bytes, std::uint64_t total) {
  {
    const std::lock_guard<std::mutex> hold(_mutex);
    _status.bytesTransferred = std::max(_status.bytesTransferred, bytes);
    _status.bytesTotal = total;
  }
  _observer.progressed(_id, bytes, total);
}

void Transfer::onMonitor(std::uint32_t type, const void* data, std::uint64_t length) {
  // Where the numbers stand in the records; both kinds begin alike.
  constexpr std::uint32_t kAdaptive = 1;
  constexpr std::size_t kThroughput = 0;
  constexpr std::size_t kWorkers = 28;
  constexpr std::size_t kTargetWorkers = 32;
  constexpr std::size_t kReason = 48;
  if (length < kTargetWorkers + sizeof(std::uint32_t)) return;
  Measurement measurement;
  measurement.bytesPerSecond = numberAt<std::uint64_t>(data, kThroughput);
  measurement.workers = numberAt<std::uint32_t>(data, kWorkers);
  measurement.targetWorkers = numberAt<std::uint32_t>(data, kTargetWorkers);
  if (type == kAdaptive && length >= kReason + sizeof(std::uint32_t)) {
    measurement.adaptive = true;
    measurement.reason = numberAt<std::uint32_t>(data, kReason);
  }
  {
    const std::lock_guard<std::mutex> hold(_mutex);
    _status.connections = measurement.workers;
  }
  _observer.measured(_id, measurement);
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

void Transfer::onRequestStarted(kovo_chunk_type type, std::uint32_t number) {
  _observer.requestStarted(_id, type, number);
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

void Transfer::cancelOnceAccepted(std::unique_lock<std::mutex>& hold) {
  _changed.wait(hold, [this] { return _token != NOTHING_ASYNC_TOKEN; });
  const kovo_instance instance = _instance;
  const kovo_async_token token = _token;
  hold.unlock();
  _changed.notify_all();
  if (_hooks.sink != nullptr) _hooks.sink->stopWaiting(true);
  kovoCancel(instance, token);
}

void Transfer::giveUp(const Failure& failure) {
  std::unique_lock<std::mutex> hold(_mutex);
  _stopping = true;
  if (!_status.failure) _status.failure.emplace(failure);
  cancelOnceAccepted(hold);
}

bool Transfer::onRequestFailed(const RequestFailure& failure) {
  // The engine repeats a request once the others have ended; none of them may wait in the sink.
  if (_hooks.sink != nullptr) _hooks.sink->stopWaiting(false);
  std::unique_lock<std::mutex> hold(_mutex);
  if (!_stopping) {
    const bool serverSeen = _status.httpStatus != 0 || failure.httpStatus != 0;
    const auto pause = _retryPolicy.next(failure, serverSeen, _retryAfter);
    hold.unlock();
    _observer.requestFailed(_id, failure, pause);
    hold.lock();
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
  // An error would end with the partial file deleted; a cancelled transfer keeps it for the next
  // run. Requests that wait out their pauses are to end now, too.
  cancelOnceAccepted(hold);
  return false;
}

}  // namespace kovo::cli
