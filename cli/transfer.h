#pragma once

#include <kovo/kovo.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "body_sink.h"
#include "event_gate.h"
#include "failure.h"
#include "retry_policy.h"
#include "transfer_observer.h"

namespace kovo::cli {

class PacedFile;

// What the user asked of one transfer.
struct TransferOptions {
  HeaderList headers;
  std::uint32_t timeoutSeconds = 30;
  std::uint32_t retries = 5;
  std::uint32_t priority = 0;
  kovo_server_type serverType = KOVO_SERVER_TYPE_DEFAULT;
  bool validateCertificates = true;
  // Earlier runs have left bytes that a failure must not cost.
  bool foundPartial = false;
};

// What a command does itself in the course of a transfer; all on the engine's threads.
struct TransferHooks {
  // The headers of a successful answer. Throws Failure to end the transfer.
  std::function<void(const HeaderList&)> inspect;
  // Everything has come, and the library still keeps the record that a killed program would resume
  // from. Throws Failure, or Interrupted.
  std::function<void()> complete;
  // Takes the body of a successful answer; of every answer with bodyOfErrors.
  BodySink* sink = nullptr;
  bool bodyOfErrors = false;
  // The body to send: a text, or a file.
  std::string_view body;
  PacedFile* file = nullptr;
};

// Thrown by the complete hook: stop, but keep the library's record for the next run.
struct Interrupted {};

// One transfer of an engine, from its start to its final callback. The callbacks write down what
// they hear and wake the gate; the main thread reads it. Outlives the engine it runs on.
class Transfer {
 public:
  enum class End { kRunning, kFinishing, kCompleted, kFailed, kCancelled };

  struct Status {
    End end = End::kRunning;
    std::uint64_t bytesTransferred = 0;
    std::uint64_t bytesTotal = 0;
    std::uint32_t connections = 0;
    // The answer: 0 until a status line came.
    std::uint32_t httpStatus = 0;
    std::string reason;
    // Of the error callback, or of the request whose failure made the transfer give up.
    std::uint32_t errorCode = 0;
    std::string errorMessage;
    // The beginning of the body of a failed answer.
    std::string serverText;
    // Requests that wait out a pause before they are sent again.
    std::uint32_t retriesWaiting = 0;
    std::uint32_t retriesMade = 0;
    // What a hook or the sink threw; tells more than the rest.
    std::optional<Failure> failure;
    // A thread of the engine is held for ever, so that the record to resume from stays: the process
    // must end without destroying the engine.
    bool holdsRecord = false;
  };

  // id is what the observer is told.
  Transfer(std::uint32_t id, const TransferOptions& options, TransferHooks hooks, EventGate& gate,
           TransferObserver& observer);
  Transfer(const Transfer&) = delete;
  Transfer& operator=(const Transfer&) = delete;

  static void registerCallbacks(kovo_instance instance);

  // Each throws Failure when the engine refuses the transfer.
  void startDownload(kovo_instance instance, const std::string& url, const std::string& path);
  // To the sink: length bytes from first on; 0: all the rest.
  void startDownloadToSink(kovo_instance instance, const std::string& url, std::uint64_t first,
                           std::uint64_t length);
  void startUpload(kovo_instance instance, kovo_http_verb verb, const std::string& url,
                   const std::string& path);
  // What the hooks say is the body, in one request.
  void startUploadOfBody(kovo_instance instance, kovo_http_verb verb, const std::string& url);
  void startRequest(kovo_instance instance, kovo_http_verb verb, const std::string& url,
                    bool acceptGzip);

  Status status() const;

  // Ends the transfer by the cancellation callback; what is stored can be resumed. False when the
  // transfer can no longer be called back.
  bool cancel();

 private:
  friend class TransferCallbacks;

  void accepted(kovo_instance instance, kovo_error result, kovo_async_token token);
  void onCompletion();
  void end(End how);
  void onError(std::uint32_t code, const char* message);
  void onStatusLine(std::uint32_t statusCode, const char* reason);
  void onResponseHeaders(const kovo_header_ref* headers, std::uint32_t count);
  void onResponseBody(std::uint64_t offset, const std::uint8_t* data, std::uint64_t size);
  std::uint64_t bodyLength() const;
  std::uint64_t onRequestBody(std::uint64_t offset, std::uint8_t* buffer, std::uint64_t most);
  void onProgress(std::uint64_t bytes, std::uint64_t total);
  void onMonitor(std::uint32_t type, const void* data, std::uint64_t length);
  void onRequestHeaders(kovo_header* headers, std::uint32_t capacity, std::uint32_t* count) const;
  void onRequestStarted(kovo_chunk_type type, std::uint32_t number);
  // Remembers why the transfer gives up; _mutex is held.
  void noteCause(const RequestFailure& failure);
  bool onRequestFailed(const RequestFailure& failure);
  // A hook or the sink has failed: the transfer is cancelled.
  void giveUp(const Failure& failure);
  void cancelOnceAccepted(std::unique_lock<std::mutex>& hold);
  bool isSuccess() const { return _status.httpStatus >= 200 && _status.httpStatus <= 299; }

  const std::uint32_t _id;
  const TransferOptions _options;
  const TransferHooks _hooks;
  EventGate& _gate;
  TransferObserver& _observer;

  mutable std::mutex _mutex;
  std::condition_variable _changed;
  // Guarded by _mutex. Callbacks may come before the start call has returned the token.
  kovo_instance _instance = nullptr;
  kovo_async_token _token = NOTHING_ASYNC_TOKEN;
  Status _status;
  RetryPolicy _retryPolicy;
  std::chrono::seconds _retryAfter{0};
  bool _stopping = false;
};

}  // namespace kovo::cli
