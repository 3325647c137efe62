#include "callbacks/client_callback_handler.h"

#include <cxxabi.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <new>
#include <vector>

#include "core/assertion.h"
#include "core/kovo_engine.h"
#include "core/kovo_settings.h"
#include "log/kovo_log.h"
#include "platform/clock.h"

namespace kovo {
namespace {

constexpr std::uint32_t kHeaderCapacity = 64;
constexpr std::uint32_t kParameterCapacity = 32;
// A count beyond the capacity yields empty pairs; this many at most, whatever the client claims.
constexpr std::uint64_t kMostPairs = 1024;

// The answer while the client's own is not to be had.
const HeaderList kNoPairs;

// Runs client code; an exception is reported and goes no further. False after an exception.
template <typename Call, typename Report>
bool shielded(Call&& call, Report&& report) {
  try {
    call();
    return true;
  } catch (abi::__forced_unwind&) {
    throw;  // the thread is being cancelled
  } catch (...) {
    report();
    return false;
  }
}

std::string fieldText(const char* field, std::size_t size) {
  return std::string(field, ::strnlen(field, size));
}

// The count a client sets: declared as 32 bits, read as 64, because clients write either.
struct RecordCount {
  alignas(std::uint64_t) std::uint32_t words[2] = {0, 0};

  std::uint64_t value() const {
    std::uint64_t count = 0;
    std::memcpy(&count, words, sizeof count);
    return count;
  }
};

}  // namespace

#define KOVO_REPORT(operation, ...) \
  [&] { KOVO_LOG(KOVO_LOG_ERROR, "kovo::ClientCallbackHandler::" operation, __VA_ARGS__); }

ClientCallbackHandler::ClientCallbackHandler(KovoEngine* engine, CallbackTable* callbacks,
                                             void* context, Clock* clock)
    : _engine(engine),
      _callbacks(callbacks),
      _context(context),
      _clock(clock != nullptr ? clock : &Clock::system()) {
  KOVO_ASSERT(_engine != nullptr, "_engine");
}

ClientCallbackHandler::~ClientCallbackHandler() = default;

kovo_instance ClientCallbackHandler::instance() const {
  return reinterpret_cast<kovo_instance>(_engine);
}

template <typename Callback>
Callback ClientCallbackHandler::takeIfOpen(const std::atomic<Callback>& slot) {
  ScopedLock guard(_lock);
  return gateOpen() ? slot.load() : nullptr;
}

template <typename Callback>
Callback ClientCallbackHandler::takeFinal(const std::atomic<Callback>& slot) {
  ScopedLock guard(_lock);
  if (_finalDelivered) {
    return nullptr;
  }
  _finalDelivered = true;
  return slot.load();
}

template <typename Callback, typename Ask>
bool ClientCallbackHandler::askOnce(OnceState ClientCallbackHandler::*question,
                                    const std::atomic<Callback>& slot, Ask&& ask) {
  Callback callback = nullptr;
  {
    ScopedLock guard(_lock);
    OnceState& once = this->*question;
    if (gateOpen()) {
      // The client's function may lead back here; its own thread cannot wait for itself.
      while (once.state == Question::BeingAsked && once.asker != std::this_thread::get_id()) {
        _answered.wait(guard);
      }
      if (once.state == Question::NotAsked) {
        callback = slot.load();
        once.state = callback != nullptr ? Question::BeingAsked : Question::Answered;
        once.asker = std::this_thread::get_id();
      }
    }
    if (callback == nullptr) {
      return once.state == Question::Answered;
    }
  }
  // Also when the thread is cancelled inside the client's function: others may be waiting.
  struct Answered {
    ClientCallbackHandler& handler;
    OnceState ClientCallbackHandler::*question;
    ~Answered() { handler.markAnswered(question); }
  } answered{*this, question};
  ask(callback);
  return true;
}

void ClientCallbackHandler::markAnswered(OnceState ClientCallbackHandler::*question) {
  ScopedLock guard(_lock);
  (this->*question).state = Question::Answered;
  _answered.notify_all();
}

template <typename Fill>
void ClientCallbackHandler::collectRecords(std::uint32_t capacity, HeaderList& out, Fill&& fill) {
  // Half a megabyte, of which a client touches little: calloc leaves the rest unmapped.
  struct Free {
    void operator()(kovo_header* records) const { std::free(records); }
  };
  const std::unique_ptr<kovo_header[], Free> records(
      static_cast<kovo_header*>(std::calloc(capacity, sizeof(kovo_header))));
  if (records == nullptr) {
    throw std::bad_alloc();
  }
  RecordCount count;
  fill(records.get(), count.words);
  const std::uint64_t pairs = std::min(count.value(), kMostPairs);
  for (std::uint64_t i = 0; i < pairs; ++i) {
    if (i < capacity) {
      out.emplace_back(fieldText(records[i].name, sizeof records[i].name),
                       fieldText(records[i].value, sizeof records[i].value));
    } else {
      out.emplace_back();
    }
  }
}

bool ClientCallbackHandler::setCancelled(bool dueToError) {
  ScopedLock guard(_lock);
  if (_cancelled && (!_cancelledDueToError || dueToError)) {
    return false;
  }
  _cancelledDueToError = dueToError;
  _cancelled = true;
  return true;
}

bool ClientCallbackHandler::wasCancelledDueToError() {
  ScopedLock guard(_lock);
  return _cancelledDueToError;
}

void ClientCallbackHandler::setTotalBytes(std::uint64_t total) {
  ScopedLock guard(_lock);
  _totalBytes = total;
}

// --- Asked once per transfer ---------------------------------------------------------------------

const HeaderList& ClientCallbackHandler::invokeRequestHeadersCallback() {
  const bool answered = askOnce(
      &ClientCallbackHandler::_requestHeadersState, _callbacks->requestHeader, [&](auto callback) {
        shielded(
            [&] {
              collectRecords(kHeaderCapacity, _requestHeaders, [&](auto* records, auto* count) {
                callback(instance(), records, kHeaderCapacity, count, _context);
              });
            },
            KOVO_REPORT("invokeRequestHeadersCallback",
                        "requestHeaderCallback returned with unknown exception for instance %p "
                        "context %p",
                        static_cast<void*>(_engine), _context));
      });
  return answered ? _requestHeaders : kNoPairs;
}

const HeaderList& ClientCallbackHandler::invokeAddParametersCallback() {
  const bool answered = askOnce(
      &ClientCallbackHandler::_parametersState, _callbacks->addParameters, [&](auto callback) {
        shielded(
            [&] {
              collectRecords(kParameterCapacity, _parameters, [&](auto* records, auto* count) {
                callback(instance(), records, kParameterCapacity, count, _context);
              });
            },
            KOVO_REPORT("invokeAddParametersCallback",
                        "addParametersCallback returned with unknown exception for instance %p "
                        "context %p",
                        static_cast<void*>(_engine), _context));
      });
  return answered ? _parameters : kNoPairs;
}

bool ClientCallbackHandler::invokeShouldValidateCertificateChain(const std::string& url) {
  const bool answered =
      askOnce(&ClientCallbackHandler::_certificatePolicyState, _callbacks->sslCertificatePolicy,
              [&](auto callback) {
                std::uint32_t answer = 1;
                const bool returned = shielded(
                    [&] { callback(instance(), url.c_str(), &answer, _context); },
                    KOVO_REPORT("invokeShouldValidateCertificateChain",
                                "sslCertificatePolicyCallback returned with unknown exceptionfor "
                                "instance %p context %p",
                                static_cast<void*>(_engine), _context));
                _validateCertificateChain = !returned || answer != 0;
              });
  return answered ? _validateCertificateChain : true;
}

std::uint32_t ClientCallbackHandler::invokeSetTimeoutCallback() {
  const bool answered =
      askOnce(&ClientCallbackHandler::_timeoutState, _callbacks->setTimeout, [&](auto callback) {
        shielded(
            [&] {
              std::uint32_t answer = 0;
              callback(instance(), &answer, _context);
              if (answer == 0 && _engine != nullptr) {
                answer = _engine->getDefaultTimeout();
              }
              _timeout = answer;
            },
            KOVO_REPORT("invokeSetTimeoutCallback",
                        "setTimeoutCallback returned with unknown error for instance %p "
                        "context %p",
                        static_cast<void*>(_engine), _context));
      });
  return answered ? _timeout : 0;
}

std::uint32_t ClientCallbackHandler::invokeSetServerTypeCallback() {
  const bool answered = askOnce(
      &ClientCallbackHandler::_serverTypeState, _callbacks->setServerType, [&](auto callback) {
        std::uint32_t answer = KOVO_SERVER_TYPE_DEFAULT;
        if (!shielded([&] { callback(instance(), &answer, _context); },
                      KOVO_REPORT("invokeSetServerTypeCallback",
                                  "setServerTypeCallback returned with unknown error for instance "
                                  "%p context %p",
                                  static_cast<void*>(_engine), _context))) {
          return;
        }
        if (answer > KOVO_SERVER_TYPE_SYNC_SERVICE) {
          KOVO_LOG(KOVO_LOG_WARN, "kovo::ClientCallbackHandler::invokeSetServerTypeCallback",
                   "setServerTypeCallback called for instance %p context %p. ServerType %d "
                   "invalid. ServerType set to default value KOVO_SERVER_TYPE_DEFAULT",
                   static_cast<void*>(_engine), _context, static_cast<int>(answer));
          answer = KOVO_SERVER_TYPE_DEFAULT;
        }
        _serverType = answer;
      });
  return answered ? _serverType : 0;
}

// --- Per event -----------------------------------------------------------------------------------

void ClientCallbackHandler::invokeResponseBodyCallback(std::uint64_t offset,
                                                       const std::uint8_t* data,
                                                       std::uint64_t size) {
  if (const auto callback = takeIfOpen(_callbacks->responseBody)) {
    shielded([&] { callback(instance(), offset, data, size, _context); },
             KOVO_REPORT("invokeResponseBodyCallback",
                         "responseBodyCallback returned with unknown exception for instance %p "
                         "context %p",
                         static_cast<void*>(_engine), _context));
  }
}

void ClientCallbackHandler::invokeRequestBodyCallback(std::uint64_t offset, std::uint8_t* buffer,
                                                      std::uint64_t* bytesRead,
                                                      std::uint64_t maxLength) {
  if (const auto callback = takeIfOpen(_callbacks->requestBody)) {
    if (!shielded([&] { callback(instance(), offset, buffer, bytesRead, maxLength, _context); },
                  KOVO_REPORT("invokeRequestBodyCallback",
                              "requestBodyCallback returned with unknown exception for instance "
                              "%p context %p",
                              static_cast<void*>(_engine), _context))) {
      *bytesRead = 0;
    }
  }
}

void ClientCallbackHandler::invokeRequestBodyContentLengthCallback(std::uint64_t* length) {
  if (const auto callback = takeIfOpen(_callbacks->requestBodyContentLength)) {
    if (!shielded([&] { callback(instance(), length, _context); },
                  KOVO_REPORT("invokeRequestBodyContentLengthCallback",
                              "requestBodyContentLengthCallback returned with unknown exception "
                              "for instance %p context %p",
                              static_cast<void*>(_engine), _context))) {
      *length = 0;
    }
  }
}

void ClientCallbackHandler::invokeChunkHeadersCallback(std::uint32_t chunkType, const char* url,
                                                       std::uint32_t chunkNumber, HeaderList& out) {
  if (const auto callback = takeIfOpen(_callbacks->addChunkHeader)) {
    shielded(
        [&] {
          collectRecords(kHeaderCapacity, out, [&](auto* records, auto* count) {
            callback(instance(), chunkType, url, chunkNumber, records, kHeaderCapacity, count,
                     _context);
          });
        },
        KOVO_REPORT("invokeChunkHeadersCallback",
                    "addChunkHeaderCallback returned with unknown exception for instance %p "
                    "context %p",
                    static_cast<void*>(_engine), _context));
  }
}

bool ClientCallbackHandler::invokeChunkErrorRetryCallback(std::uint32_t chunkType,
                                                          std::uint32_t chunkNumber,
                                                          std::shared_ptr<KovoError> error,
                                                          const std::string& message,
                                                          std::uint32_t httpStatus) {
  const auto callback = takeIfOpen(_callbacks->chunkErrorRetry);
  if (callback == nullptr) {
    return false;
  }
  KOVO_ASSERT(error != nullptr, "error && \"Passed a null error!\"");
  if (error == nullptr) {
    return false;
  }
  bool retry = false;
  shielded(
      [&] {
        retry = callback(instance(), chunkType, chunkNumber, error->code, httpStatus,
                         message.c_str(), _context) != 0;
      },
      KOVO_REPORT("invokeChunkErrorRetryCallback",
                  "chunkErrorRetryCallbackCallback returned with unknown exception for instance "
                  "%p context %p chunk %d error %d",
                  static_cast<void*>(_engine), _context, static_cast<int>(chunkNumber),
                  static_cast<int>(error->code)));
  return retry;
}

void ClientCallbackHandler::invokeMonitorCallback(std::uint32_t type, const void* data,
                                                  std::uint64_t length) {
  if (const auto callback = takeIfOpen(_callbacks->monitor)) {
    shielded([&] { callback(instance(), type, data, length, _context); },
             KOVO_REPORT("invokeMonitorCallback",
                         "monitorCallback returned with unknown error for instance %p context %p",
                         static_cast<void*>(_engine), _context));
  }
}

void ClientCallbackHandler::invokePausedCallback() {
  if (const auto callback = takeIfOpen(_callbacks->paused)) {
    shielded([&] { callback(instance(), _context); },
             KOVO_REPORT("invokePausedCallback",
                         "PausedCallback returned with unknown exception for instance %p "
                         "context %p",
                         static_cast<void*>(_engine), _context));
  }
}

void ClientCallbackHandler::invokeProgressCallback(std::uint64_t bytes) {
  const std::int64_t interval = _engine != nullptr ? _engine->getSettings().progressInterval
                                                   : KovoSettings{}.progressInterval;
  if (interval == 0) {
    return;
  }
  kovo_progress_callback callback = nullptr;
  std::uint64_t transferred = 0;
  std::uint64_t total = 0;
  {
    ScopedLock guard(_lock);
    callback = gateOpen() ? _callbacks->progress.load() : nullptr;
    if (callback == nullptr) {
      return;
    }
    _progressBytes += bytes;
    const std::int64_t now = _clock->nowMilliseconds();
    // A time further away than the interval comes from a clock that has been set back since.
    if (now < _nextProgressTime && _nextProgressTime - now <= interval) {
      return;
    }
    _nextProgressTime = now + interval;
    transferred = _progressBytes;
    total = _totalBytes;
  }
  shielded([&] { callback(instance(), transferred, total, _context); },
           KOVO_REPORT("invokeProgressCallback",
                       "progressCallback returned with unknown exception for instance %p "
                       "context %p",
                       static_cast<void*>(_engine), _context));
}

void ClientCallbackHandler::retractProgress(std::uint64_t bytes) {
  ScopedLock guard(_lock);
  _progressBytes -= std::min(bytes, _progressBytes);
}

void ClientCallbackHandler::invokeStatusLineCallback(const char* httpVersion,
                                                     std::uint32_t statusCode,
                                                     const char* reasonPhrase) {
  kovo_status_line_callback callback = nullptr;
  {
    ScopedLock guard(_lock);
    if (_statusLineDelivered) {
      return;
    }
    _statusLineDelivered = true;
    callback = _callbacks->statusLine.load();
  }
  if (callback != nullptr) {
    shielded([&] { callback(instance(), httpVersion, statusCode, reasonPhrase, _context); },
             KOVO_REPORT("invokeStatusLineCallback",
                         "statusLineCallback returned with unknown exception for instance %p "
                         "context %p",
                         static_cast<void*>(_engine), _context));
  }
}

void ClientCallbackHandler::invokeResponseHeaderCallback(const HeaderList& headers,
                                                         bool errorRecorded) {
  KOVO_ASSERT(!headers.empty(),
              "!headers.empty() && \"invokeResponseHeaderCallback called with zero headers\"");
  if (headers.empty()) {
    return;
  }
  kovo_response_header_callback callback = nullptr;
  {
    ScopedLock guard(_lock);
    if (!gateOpen() || (errorRecorded ? _lastHeadersForError : _headersDelivered)) {
      return;
    }
    _headersDelivered = true;
    _lastHeadersForError = errorRecorded;
    callback = _callbacks->responseHeader.load();
  }
  if (callback == nullptr) {
    return;
  }
  shielded(
      [&] {
        std::vector<kovo_header_ref> references;
        references.reserve(headers.size());
        for (const Header& header : headers) {
          references.push_back({header.first.c_str(), header.second.c_str()});
        }
        callback(instance(), references.data(), static_cast<std::uint32_t>(references.size()),
                 _context);
      },
      KOVO_REPORT("invokeResponseHeaderCallback",
                  "responseHeaderCallback returned with unknown exception for instance %p "
                  "context %p",
                  static_cast<void*>(_engine), _context));
}

// --- Final ---------------------------------------------------------------------------------------

void ClientCallbackHandler::invokeErrorCallback(std::shared_ptr<KovoError> error) {
  KOVO_ASSERT(error != nullptr, "error && \"Passed a null error!\"");
  if (error == nullptr) {
    // The transfer's end must not go unreported for want of a reason.
    error = makeKovoError(KOVO_ERROR_UNKNOWN, {});
  }
  const std::string description = error->description();
  const auto callback = takeFinal(_callbacks->error);
  KOVO_LOG(KOVO_LOG_WARN, "kovo::ClientCallbackHandler::invokeErrorCallback",
           "Request Failed. ErrorCode: %d errorMessage: %s", static_cast<int>(error->code),
           description.c_str());
  if (callback != nullptr) {
    shielded([&] { callback(instance(), error->code, description.c_str(), _context); },
             KOVO_REPORT("invokeErrorCallback", "errorCallback returned with unknown exception."));
  }
}

void ClientCallbackHandler::invokeCompletionCallback() {
  if (const auto callback = takeFinal(_callbacks->completion)) {
    shielded([&] { callback(instance(), _context); },
             KOVO_REPORT("invokeCompletionCallback",
                         "completionCallback returned with unknown exception for instance %p "
                         "context %p",
                         static_cast<void*>(_engine), _context));
  }
}

void ClientCallbackHandler::invokeCancellationCallback() {
  kovo_cancellation_callback callback = nullptr;
  {
    ScopedLock guard(_lock);
    if (_finalDelivered) {
      return;
    }
    _finalDelivered = true;
    // A cancellation due to an error is reported by the error callback alone.
    callback = _cancelledDueToError ? nullptr : _callbacks->cancellation.load();
  }
  if (callback != nullptr) {
    shielded([&] { callback(instance(), _context); },
             KOVO_REPORT("invokeCancellationCallback",
                         "cancellationCallback returned with unknown exception for instance %p "
                         "context %p",
                         static_cast<void*>(_engine), _context));
  }
}

#undef KOVO_REPORT

}  // namespace kovo
