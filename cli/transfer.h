#pragma once

#include <kovo/kovo.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "event_gate.h"
#include "retry_policy.h"

namespace kovo::cli {

// What the user asked of one transfer.
struct TransferOptions {
  std::vector<std::pair<std::string, std::string>> headers;
  std::uint32_t timeoutSeconds = 30;
  std::uint32_t retries = 5;
  kovo_server_type serverType = KOVO_SERVER_TYPE_DEFAULT;
  bool validateCertificates = true;
  // Earlier runs have left bytes that a failure must not cost.
  bool foundPartial = false;
};

// One transfer of an engine, from its start to its final callback. The callbacks write down what
// they hear and wake the gate; the main thread reads it. Outlives the engine it runs on.
class Transfer {
 public:
  enum class End { kRunning, kCompleted, kFailed, kCancelled };

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
  };

  Transfer(const TransferOptions& options, EventGate& gate);
  Transfer(const Transfer&) = delete;
  Transfer& operator=(const Transfer&) = delete;

  static void registerCallbacks(kovo_instance instance);

  // Each throws Failure when the engine refuses the transfer.
  void startDownload(kovo_instance instance, const std::string& url, const std::string& path);
  void startUpload(kovo_instance instance, kovo_http_verb verb, const std::string& url,
                   const std::string& path);

  Status status() const;

  // While one lives, the completion callback does not return: the library keeps the record that a
  // killed program would resume from until the complete file has its name.
  class CompletionHold {
   public:
    explicit CompletionHold(Transfer& transfer) : _transfer(transfer) { _transfer.hold(true); }
    ~CompletionHold() { _transfer.hold(false); }
    CompletionHold(const CompletionHold&) = delete;
    CompletionHold& operator=(const CompletionHold&) = delete;

   private:
    Transfer& _transfer;
  };

  // Ends the transfer by the cancellation callback; what is stored can be resumed. False when the
  // transfer can no longer be called back.
  bool cancel();

 private:
  class Callbacks;

  void accepted(kovo_instance instance, kovo_error result, kovo_async_token token);
  void end(End how);
  void hold(bool held);
  void waitWhileHeld();
  void onError(std::uint32_t code, const char* message);
  void onStatusLine(std::uint32_t statusCode, const char* reason);
  void onResponseHeaders(const kovo_header_ref* headers, std::uint32_t count);
  void onResponseBody(const std::uint8_t* data, std::uint64_t size);
  void onProgress(std::uint64_t bytes, std::uint64_t total);
  void onMonitor(std::uint32_t type, const void* data, std::uint64_t length);
  void onRequestHeaders(kovo_header* headers, std::uint32_t capacity, std::uint32_t* count) const;
  // Remembers why the transfer gives up; _mutex is held.
  void noteCause(const RequestFailure& failure);
  bool onRequestFailed(kovo_instance instance, const RequestFailure& failure);

  const TransferOptions _options;
  EventGate& _gate;

  mutable std::mutex _mutex;
  std::condition_variable _changed;
  // Guarded by _mutex. Callbacks may come before the start call has returned the token.
  kovo_instance _instance = nullptr;
  kovo_async_token _token = NOTHING_ASYNC_TOKEN;
  Status _status;
  RetryPolicy _retryPolicy;
  std::chrono::seconds _retryAfter{0};
  bool _stopping = false;
  bool _held = false;
};

}  // namespace kovo::cli
