#pragma once

#include <kovo/kovo.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace kovo::test {

using Fields = std::vector<std::pair<std::string, std::string>>;

/** What a client does in its callbacks, beyond having them recorded. Empty ones do nothing. */
struct TransferHooks {
  std::function<void()> onStatusLine;
  std::function<void()> onHeaders;
  std::function<void(uint64_t offset, std::string_view data)> onBody;
  std::function<void()> onProgress;
  std::function<void()> onPaused;
  std::function<void()> onFinal;
  /* Asked of a failed request of a chunked transfer, with its error code and status; no: 0. */
  std::function<int32_t(uint32_t errorCode, uint32_t status)> retry;
  Fields requestHeaders;
  Fields parameters;
  Fields chunkHeaders;
  std::string requestBody;
  uint32_t timeoutSeconds = 0;
  uint32_t validateChain = 1;
  uint32_t serverType = KOVO_SERVER_TYPE_DEFAULT;
  /* Bodies delivered to memory are only counted. */
  bool dropsBody = false;
};

/** What a transfer's callbacks reported so far. */
struct TransferEvents {
  uint32_t completions = 0;
  uint32_t errors = 0;
  uint32_t cancellations = 0;
  uint32_t callbacksAfterFinal = 0;
  uint32_t pauses = 0;
  uint32_t statusLines = 0;
  uint32_t headerCalls = 0;
  uint32_t bodyCalls = 0;
  uint32_t timeoutCalls = 0;
  uint32_t requestHeaderCalls = 0;
  uint32_t parameterCalls = 0;
  uint32_t policyCalls = 0;

  uint32_t errorCode = 0;
  std::string errorText;
  std::string httpVersion;
  uint32_t status = 0;
  std::string reason;
  Fields headers; /* of the last header callback */
  std::vector<std::pair<uint64_t, uint64_t>> progress;
  uint64_t bodyBytes = 0;
  std::map<uint64_t, std::string> body; /* by offset; a second delivery at one offset replaces */
  std::string policyUrl;

  struct Chunk {
    uint32_t type = 0;
    uint32_t number = 0;
    uint32_t errorCode = 0; /* of a retry decision */
    uint32_t status = 0;    /* of a retry decision */
    std::string text;       /* the request's URL, or the failure */
  };
  std::vector<Chunk> chunkHeaderCalls;
  std::vector<Chunk> retryCalls;

  uint32_t finals() const { return completions + errors + cancellations; }
  /** The body in one piece; a gap or an overlap makes it "<hole>" or "<overlap>". */
  std::string wholeBody(uint64_t from = 0) const;
};

/** One transfer a TestEngine started, and the context its callbacks carry. */
class TransferRecord {
 public:
  explicit TransferRecord(TransferHooks hooks) : _hooks(std::move(hooks)) {}

  const TransferHooks& hooks() const { return _hooks; }
  TransferEvents events() const;
  /** Changes the events under the record's lock and wakes waiters. */
  void update(const std::function<void(TransferEvents&)>& change);
  /** Waits until condition holds of the events. */
  bool waitFor(const std::function<bool(const TransferEvents&)>& condition,
               std::chrono::milliseconds timeout) const;

  /* Set once the start call has returned; callbacks may run before. */
  std::atomic<kovo_error> startResult{KOVO_ERROR_UNKNOWN};
  std::atomic<kovo_async_token> token{NOTHING_ASYNC_TOKEN};
  /** For callbacks that use the token: waits, briefly, until the start call has returned it. */
  kovo_async_token startedToken() const;

 private:
  const TransferHooks _hooks;
  mutable std::mutex _mutex;
  mutable std::condition_variable _changed;
  TransferEvents _events; /* guarded by _mutex */
};

}  // namespace kovo::test
