/**
 * @file
 * KOVO for C++17 and later: a thin layer over kovo.h, in this header alone.
 *
 *     kovo::Engine engine;
 *     kovo::TransferOptions options;
 *     options.onProgress = [](const kovo::Progress& p) { std::cout << p.done << '\n'; };
 *     kovo::Transfer transfer = engine.download("https://example.org/a.iso", "a.iso", options);
 *     transfer.get();  // waits; throws kovo::Error when the transfer fails
 *
 * Conventions, beyond those of kovo.h:
 *
 *   - **Errors**: functions that start something throw kovo::Error; those that control a transfer
 *     answer whether the engine accepted it. How a transfer ended is told by Transfer::get, which
 *     throws, and by Result, which does not.
 *   - **Callbacks** are std::functions that run on the library's threads; those of one transfer may
 *     run at the same time. An exception that leaves one never reaches the library: it cancels the
 *     transfer, and Transfer::get throws it. One that leaves onFinished is dropped.
 *   - **Lifetime**: a Transfer is a handle; copies name the same transfer, and dropping them
 *     neither ends nor waits for it. Destroying an Engine ends its transfers within a second, each
 *     with a result; handles stay valid afterwards and control nothing. An Engine may even be
 *     destroyed inside a callback: then another thread ends it. What a callback captured is
 *     released once its transfer has ended.
 *   - **Threads**: every function of Engine and Transfer may be called from any thread, an Engine
 *     being closed, moved or destroyed apart, as with any object. Waiting for a transfer inside one
 *     of its callbacks would wait for ever.
 */
#ifndef KOVO_KOVO_HPP_
#define KOVO_KOVO_HPP_

#include <kovo/kovo.h>
#include <kovo/kovo_ext.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <exception>
#include <functional>
#include <future>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <shared_mutex>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <unordered_map>
#include <utility>
#include <vector>

namespace kovo {

/** An HTTP method. */
enum class Verb : kovo_http_verb {
  kPut = KOVO_HTTP_PUT,
  kPost = KOVO_HTTP_POST,
  kGet = KOVO_HTTP_GET,
  kDelete = KOVO_HTTP_DELETE,
  kHead = KOVO_HTTP_HEAD,
  kOptions = KOVO_HTTP_OPTIONS,
  kPatch = KOVO_HTTP_PATCH
};

/** Whether a transfer is cut into chunks that run in parallel. */
enum class Chunking : kovo_chunking_mode {
  kDefault = KOVO_CHUNKING_DEFAULT, /**< as chunkDownloads or chunkUploads of EngineOptions says */
  kSerial = KOVO_CHUNKING_SERIAL,
  kAlways = KOVO_CHUNKING_ALWAYS
};

/** How an upload speaks to its server. */
enum class ServerType : kovo_server_type {
  kDefault = KOVO_SERVER_TYPE_DEFAULT, /**< the body in one plain request */
  kS3 = KOVO_SERVER_TYPE_S3,
  kSyncService = KOVO_SERVER_TYPE_SYNC_SERVICE
};

/** What a request of a transfer carries. */
enum class ChunkType : kovo_chunk_type {
  kInit = KOVO_CHUNK_TYPE_INIT,
  kChunk = KOVO_CHUNK_TYPE_CHUNK,
  kFinalise = KOVO_CHUNK_TYPE_FINALISE,
  kSingle = KOVO_CHUNK_TYPE_SINGLE
};

/** How important a log message is. */
enum class LogLevel : kovo_log_level {
  kAlways = KOVO_LOG_ALWAYS,
  kCritical = KOVO_LOG_CRITICAL,
  kError = KOVO_LOG_ERROR,
  kWarn = KOVO_LOG_WARN,
  kInfo = KOVO_LOG_INFO,
  kDebug = KOVO_LOG_DEBUG,
  kTrace = KOVO_LOG_TRACE,
  kNone = KOVO_LOG_NONE
};

/** One header of a request or an answer, or one parameter. */
struct Header {
  std::string name;  /**< as sent or received */
  std::string value; /**< as sent or received */
};
/** Headers in their order. */
using Headers = std::vector<Header>;

/** How far a transfer has come. */
struct Progress {
  std::uint64_t done = 0;  /**< bytes */
  std::uint64_t total = 0; /**< bytes; 0 while it is unknown */
};

/** What a server answered. */
struct Response {
  std::uint32_t status = 0; /**< HTTP status; 0 when there was no answer */
  std::string httpVersion;  /**< "Http11" and the like, as in kovo.h */
  std::string reason;       /**< of the status line */
  Headers headers;          /**< in their order */
  std::string body; /**< what onBody did not take: bytes of a download to memory, or an answer */

  /** The value of the first header of that name, in any case. */
  std::optional<std::string> header(std::string_view name) const {
    const auto lower = [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c; };
    for (const Header& each : headers) {
      if (std::equal(name.begin(), name.end(), each.name.begin(), each.name.end(),
                     [&](char a, char b) { return lower(a) == lower(b); })) {
        return each.value;
      }
    }
    return std::nullopt;
  }
};

/** Why a transfer could not start, or how it failed. */
class Error : public std::runtime_error {
 public:
  /** An empty message stands for the text of the code. */
  explicit Error(kovo_error code, const std::string& message = {}, Response response = {})
      : std::runtime_error(message.empty() ? kovoErrorString(code) : message),
        _code(code),
        _response(std::make_shared<const Response>(std::move(response))) {}

  /** As in kovo.h. */
  kovo_error code() const noexcept { return _code; }
  /** What the server had answered; a status of 0 means nothing. */
  const Response& response() const noexcept { return *_response; }

 private:
  kovo_error _code;
  std::shared_ptr<const Response> _response;
};

/** The transfer was cancelled, or its engine destroyed. */
class Cancelled : public Error {
 public:
  using Error::Error;
};

/** The server answered with a status of 400 or more, which response() holds. */
class HttpError : public Error {
 public:
  using Error::Error;
  /** The HTTP status. */
  std::uint32_t status() const noexcept { return response().status; }
};

/** How a transfer ended. */
struct Result {
  kovo_error code = KOVO_ERROR_NONE; /**< as in kovo.h */
  std::string message;               /**< explains the code */
  Response response;                 /**< what the server answered */
  std::exception_ptr exception;      /**< what left one of the transfer's callbacks */

  /** Whether the transfer is complete and no callback threw. */
  bool ok() const noexcept { return code == KOVO_ERROR_NONE && exception == nullptr; }
  /** Throws what ok() denies: the callback's exception, Cancelled, HttpError or Error. */
  void check() const {
    if (exception != nullptr) std::rethrow_exception(exception);
    if (code == KOVO_ERROR_NONE) return;
    if (code == KOVO_ERROR_CANCELLED) throw Cancelled(code, message, response);
    if (response.status >= 400) throw HttpError(code, message, response);
    throw Error(code, message, response);
  }
};

/** One failed request of a chunked transfer. */
struct RequestFailure {
  /** What the request carries. */
  ChunkType type = ChunkType::kChunk;
  std::uint32_t number = 0;          /**< counts from 0 */
  kovo_error code = KOVO_ERROR_NONE; /**< as in kovo.h */
  std::uint32_t status = 0;          /**< 0 when no answer came */
  std::string message;               /**< the server's words, or the failure's */
};

/** Empty functions do nothing. */
struct Callbacks {
  /** At most once per EngineOptions::progressInterval. */
  std::function<void(const Progress&)> onProgress;
  /** Status, version and reason of the answer; headers and body are not there yet. */
  std::function<void(const Response&)> onStatus;
  /** The headers of the first answer, and those of a later refusal. */
  std::function<void(const Headers&)> onHeaders;
  /** Bytes of the body and their position in the resource. Pieces of a parallel download overlap
   * in time and come in any order. Without it they gather in Response::body. */
  std::function<void(std::uint64_t offset, std::string_view bytes)> onBody;
  /** A pause has drained. */
  std::function<void()> onPaused;
  /** Headers for one request of a chunked transfer. */
  std::function<Headers(ChunkType type, const std::string& url, std::uint32_t number)> chunkHeaders;
  /** Whether a failed request is sent again; replaces TransferOptions::retries. */
  std::function<bool(const RequestFailure&)> onRequestFailed;
  /** The transfer has ended; called before those who wait for it go on. */
  std::function<void(const Result&)> onFinished;
};

/** What one transfer differs in. Its callbacks come before those of EngineOptions. */
struct TransferOptions : Callbacks {
  Headers headers;    /**< at most 64, of at most 1023 and 8191 bytes */
  Headers parameters; /**< of the query; at most 32 */
  /** Without any progress a request fails; 0: as EngineOptions says. */
  std::chrono::seconds timeout{0};
  std::uint32_t priority = 0; /**< a larger one runs earlier */
  /** Whether it is cut into chunks. */
  Chunking chunking = Chunking::kDefault;
  /** Of an upload. */
  ServerType serverType = ServerType::kDefault;
  /** False accepts any certificate for any host. */
  bool verifyCertificates = true;
  /** How often each failed request of a chunked transfer is sent again, after growing pauses, when
   * no answer came or the status speaks of a passing trouble (408, 429, 500 and above). */
  std::uint32_t retries = 3;
};

/** What an Engine is made with. */
struct EngineOptions {
  std::uint32_t connections = 16; /**< requests that run at once; 1..64 */
  bool adaptive =
      false; /**< the measured throughput chooses the number of connections below that */
  std::uint32_t activeTransfers = 4; /**< transfers served at once; 1..1024 */
  std::uint64_t chunkSize = 2097152; /**< bytes; 1..52428800 */
  /** Downloads with Chunking::kDefault go in chunks. */
  bool chunkDownloads = true;
  /** Uploads with Chunking::kDefault go in parts, where the server type knows parts. */
  bool chunkUploads = false;
  bool resume = true;                       /**< interrupted transfers go on where they stopped */
  bool rangeCache = false;                  /**< range answers are kept on the disk */
  std::uint64_t rangeCacheSize = 536870912; /**< bytes */
  /** Least time between two reports of a transfer; 0: none. */
  std::chrono::milliseconds progressInterval{500};
  /** Without any progress for so long a request fails. */
  std::chrono::seconds timeout{30};
  std::uint64_t uploadRate = 0;   /**< most bytes per second; 0: no limit */
  std::uint64_t downloadRate = 0; /**< likewise */
  Callbacks callbacks;            /**< for transfers without their own */
};

/** The body of a request: bytes, or a function that reads them. */
class Body {
 public:
  /** Copies up to size bytes from offset on to buffer and returns how many; 0 ends the body. */
  using Reader = std::function<std::size_t(std::uint64_t offset, char* buffer, std::size_t size)>;

  Body() = default;
  /** These bytes. */
  Body(std::string bytes) : _bytes(std::move(bytes)) {}
  /** This text, without its final NUL. */
  Body(const char* text) : _bytes(text) {}
  /** length bytes that reader delivers, which may be asked for more than once. */
  Body(std::uint64_t length, Reader reader) : _length(length), _reader(std::move(reader)) {}

  /** In bytes. */
  std::uint64_t length() const { return _reader ? _length : _bytes.size(); }
  /** As Reader. */
  std::size_t read(std::uint64_t offset, char* buffer, std::size_t size) const {
    if (_reader) return _reader(offset, buffer, size);
    if (offset >= _bytes.size()) return 0;
    return _bytes.copy(buffer, size, static_cast<std::size_t>(offset));
  }

 private:
  std::string _bytes;
  std::uint64_t _length = 0;
  Reader _reader;
};

namespace detail {

/** The engine's handle, shared by all who control it; null once the engine is to end. */
struct Core {
  std::shared_mutex mutex;
  kovo_instance instance = nullptr;

  template <class Call>
  kovo_error call(Call&& call) {
    const std::shared_lock<std::shared_mutex> lock(mutex);
    if (instance == nullptr) return KOVO_ERROR_INSTANCE_RELEASED;
    return call(instance);
  }
};

/** What a transfer answers in its body when it is no download to memory. */
constexpr std::size_t kLongestErrorBody = 65536;

/** One transfer, from its start to its result. */
struct State {
  State(std::shared_ptr<Core> engine, TransferOptions given, Body requestBody)
      : core(std::move(engine)),
        body(std::move(requestBody)),
        options(std::make_shared<const TransferOptions>(std::move(given))),
        future(promise.get_future().share()) {}

  const std::shared_ptr<Core> core;
  const Body body;
  /* Set before the start. */
  std::uint64_t bodyStart = 0;
  std::size_t longestBody = static_cast<std::size_t>(-1);
  bool anyStatusIsFine = false;

  std::mutex mutex;
  std::condition_variable changed;
  /* Guarded by mutex. */
  std::shared_ptr<const TransferOptions> options; /* null once the transfer has ended */
  kovo_async_token token = NOTHING_ASYNC_TOKEN;   /* callbacks may come before it is known */
  bool cancelWanted = false;
  bool pauseWanted = false;
  bool stopping = false;
  std::uint32_t failedStatus = 0;
  Response response;
  std::exception_ptr exception;
  std::map<std::pair<kovo_chunk_type, std::uint32_t>, std::uint32_t> attempts;

  std::promise<Result> promise;
  const std::shared_future<Result> future;

  void started(kovo_async_token name) {
    bool cancels = false;
    bool pauses = false;
    {
      const std::lock_guard<std::mutex> lock(mutex);
      token = name;
      cancels = cancelWanted;
      pauses = pauseWanted;
    }
    if (cancels) {
      cancel();
    } else if (pauses) {
      pause();
    }
  }

  bool cancel() {
    kovo_async_token name = NOTHING_ASYNC_TOKEN;
    {
      const std::lock_guard<std::mutex> lock(mutex);
      if (options == nullptr) return false;
      stopping = cancelWanted = true;
      name = token;
    }
    changed.notify_all();
    if (name == NOTHING_ASYNC_TOKEN) return true;
    const kovo_error result =
        core->call([&](kovo_instance instance) { return kovoCancel(instance, name); });
    return result == KOVO_ERROR_NONE || result == KOVO_ERROR_CANCELLED;
  }

  bool pause() {
    kovo_async_token name = NOTHING_ASYNC_TOKEN;
    {
      const std::lock_guard<std::mutex> lock(mutex);
      if (options == nullptr) return false;
      name = token;
      pauseWanted = name == NOTHING_ASYNC_TOKEN;
    }
    return name == NOTHING_ASYNC_TOKEN || core->call([&](kovo_instance instance) {
      return kovoPause(instance, name);
    }) == KOVO_ERROR_NONE;
  }

  bool resume() {
    kovo_async_token name = NOTHING_ASYNC_TOKEN;
    {
      const std::lock_guard<std::mutex> lock(mutex);
      name = token;
      if (name == NOTHING_ASYNC_TOKEN) return std::exchange(pauseWanted, false);
    }
    kovo_async_token same = NOTHING_ASYNC_TOKEN;
    return core->call([&](kovo_instance instance) {
      return kovoResume(instance, name, nullptr, &same);
    }) == KOVO_ERROR_NONE;
  }

  /** No request waits to be sent again any more. */
  void stop() {
    {
      const std::lock_guard<std::mutex> lock(mutex);
      stopping = true;
    }
    changed.notify_all();
  }

  /** An exception left a callback. */
  void fail(std::exception_ptr what) {
    {
      const std::lock_guard<std::mutex> lock(mutex);
      if (exception == nullptr) exception = std::move(what);
    }
    cancel();
  }

  void finish(kovo_error code, const char* message) {
    Result result;
    std::shared_ptr<const TransferOptions> last;
    {
      const std::lock_guard<std::mutex> lock(mutex);
      if (options == nullptr) return;
      result.code = code;
      result.message = message == nullptr ? "" : message;
      result.response = std::move(response);
      Response& answer = result.response;
      if (code != KOVO_ERROR_NONE && failedStatus != 0 && failedStatus != answer.status) {
        answer.status = failedStatus;
        answer.reason = kovoHTTPStatusString(static_cast<std::int32_t>(failedStatus));
      }
      if (answer.status >= 400 && !anyStatusIsFine && code != KOVO_ERROR_CANCELLED) {
        if (code == KOVO_ERROR_NONE) result.code = KOVO_ERROR_CHUNK_HTTP_ERROR;
        result.message = std::to_string(answer.status) + " " + answer.reason;
      }
      result.exception = exception;
      last = std::move(options);
      options = nullptr;
      stopping = true;
    }
    changed.notify_all();
    try {
      if (last->onFinished) last->onFinished(result);
    } catch (...) {
    }
    promise.set_value(std::move(result));
  }

  void collect(std::uint64_t offset, const char* bytes, std::size_t size) {
    const std::uint64_t at = offset >= bodyStart ? offset - bodyStart : offset;
    const std::lock_guard<std::mutex> lock(mutex);
    if (at >= longestBody) return;
    const std::size_t end =
        static_cast<std::size_t>(at) + std::min(size, longestBody - static_cast<std::size_t>(at));
    if (response.body.size() < end) response.body.resize(end);
    std::copy_n(bytes, end - static_cast<std::size_t>(at),
                response.body.begin() + static_cast<std::ptrdiff_t>(at));
  }

  /** Waits out the pause before a request is sent again. A transfer that is being cancelled says
   * yes: no is an error, which would end it as failed and cost the bytes it has stored. */
  bool retry(const RequestFailure& failure, std::uint32_t retries) {
    const bool passing = failure.status == 0 || failure.status == 408 || failure.status == 429 ||
                         failure.status >= 500;
    std::unique_lock<std::mutex> lock(mutex);
    if (stopping) return true;
    std::uint32_t& made = attempts[{static_cast<kovo_chunk_type>(failure.type), failure.number}];
    if (!passing || made >= retries) return false;
    const auto pause = std::chrono::milliseconds(100) * (1U << std::min<std::uint32_t>(made, 6));
    ++made;
    changed.wait_for(lock, pause, [this] { return stopping; });
    return true;
  }
};

/**
 * The running transfers by the number that the library carries as their context: a callback that
 * comes late finds nothing instead of a stale address. Never destroyed, since engines may outlive
 * any static object.
 */
class Registry {
 public:
  static Registry& instance() {
    static Registry* const only = new Registry;
    return *only;
  }

  void* add(std::shared_ptr<State> state) {
    const std::lock_guard<std::mutex> lock(_mutex);
    const std::uintptr_t number = ++_last;
    _states.emplace(number, std::move(state));
    return reinterpret_cast<void*>(number);
  }
  std::shared_ptr<State> find(void* context) {
    const std::lock_guard<std::mutex> lock(_mutex);
    const auto found = _states.find(reinterpret_cast<std::uintptr_t>(context));
    return found == _states.end() ? nullptr : found->second;
  }
  std::shared_ptr<State> take(void* context) {
    const std::lock_guard<std::mutex> lock(_mutex);
    const auto found = _states.find(reinterpret_cast<std::uintptr_t>(context));
    if (found == _states.end()) return nullptr;
    std::shared_ptr<State> state = std::move(found->second);
    _states.erase(found);
    return state;
  }
  /** Those of one engine. */
  std::vector<std::shared_ptr<State>> of(const Core* core, bool takes) {
    std::vector<std::shared_ptr<State>> found;
    const std::lock_guard<std::mutex> lock(_mutex);
    for (auto each = _states.begin(); each != _states.end();) {
      if (each->second->core.get() == core) {
        found.push_back(each->second);
        each = takes ? _states.erase(each) : std::next(each);
      } else {
        ++each;
      }
    }
    return found;
  }

 private:
  std::mutex _mutex;
  std::uintptr_t _last = 0;
  std::unordered_map<std::uintptr_t, std::shared_ptr<State>> _states;
};

/** Ends engines that were destroyed inside a callback, and waits for that when the program ends. */
class Reaper {
 public:
  ~Reaper() {
    for (std::thread& each : _threads) each.join();
  }
  static Reaper& instance() {
    static Reaper only;
    return only;
  }
  template <class Work>
  void run(Work work) {
    const std::lock_guard<std::mutex> lock(_mutex);
    _threads.emplace_back(std::move(work));
  }

 private:
  std::mutex _mutex;
  std::vector<std::thread> _threads;
};

/** The C functions the library calls. Nothing is thrown through them. */
struct Trampolines {
  template <class Call>
  static void with(void* context, Call&& call) noexcept {
    const std::shared_ptr<State> state = Registry::instance().find(context);
    if (state == nullptr) return;
    std::shared_ptr<const TransferOptions> options;
    {
      const std::lock_guard<std::mutex> lock(state->mutex);
      options = state->options;
    }
    if (options == nullptr) return;
    try {
      call(*state, *options);
    } catch (...) {
      state->fail(std::current_exception());
    }
  }
  static void end(void* context, kovo_error code, const char* message) noexcept {
    if (const auto state = Registry::instance().take(context)) state->finish(code, message);
  }
  static void put(const Headers& from, kovo_header* to, std::uint32_t capacity,
                  std::uint32_t* count) {
    check(from, capacity);
    for (const Header& each : from) {
      std::memcpy(to->name, each.name.c_str(), each.name.size() + 1);
      std::memcpy(to->value, each.value.c_str(), each.value.size() + 1);
      ++to;
    }
    *count = static_cast<std::uint32_t>(from.size());
  }
  static void check(const Headers& headers, std::size_t capacity) {
    bool fits = headers.size() <= capacity;
    for (const Header& each : headers) {
      fits = fits && each.name.size() < sizeof(kovo_header::name) &&
             each.value.size() < sizeof(kovo_header::value);
    }
    if (!fits) throw Error(KOVO_ERROR_INVALID_PARAMETERS, "headers: too many, or one too long");
  }

  static void completion(kovo_instance, void* context) { end(context, KOVO_ERROR_NONE, nullptr); }
  static void cancellation(kovo_instance, void* context) {
    end(context, KOVO_ERROR_CANCELLED, "the transfer was cancelled");
  }
  static void error(kovo_instance, std::uint32_t code, const char* message, void* context) {
    end(context, code, message);
  }
  static void statusLine(kovo_instance, const char* version, std::uint32_t status,
                         const char* reason, void* context) {
    with(context, [&](State& state, const TransferOptions& options) {
      Response response;
      response.status = status;
      response.httpVersion = version;
      response.reason = reason;
      {
        const std::lock_guard<std::mutex> lock(state.mutex);
        state.response.status = status;
        state.response.httpVersion = response.httpVersion;
        state.response.reason = response.reason;
      }
      if (options.onStatus) options.onStatus(response);
    });
  }
  static void responseHeaders(kovo_instance, const kovo_header_ref* fields, std::uint32_t count,
                              void* context) {
    with(context, [&](State& state, const TransferOptions& options) {
      Headers headers;
      for (std::uint32_t i = 0; i < count; ++i)
        headers.push_back({fields[i].name, fields[i].value});
      {
        const std::lock_guard<std::mutex> lock(state.mutex);
        state.response.headers = headers;
      }
      if (options.onHeaders) options.onHeaders(headers);
    });
  }
  static void responseBody(kovo_instance, std::uint64_t offset, const std::uint8_t* data,
                           std::uint64_t size, void* context) {
    with(context, [&](State& state, const TransferOptions& options) {
      const std::string_view bytes(reinterpret_cast<const char*>(data),
                                   static_cast<std::size_t>(size));
      if (options.onBody) {
        options.onBody(offset, bytes);
      } else {
        state.collect(offset, bytes.data(), bytes.size());
      }
    });
  }
  static void requestBodyLength(kovo_instance, std::uint64_t* length, void* context) {
    *length = 0;
    with(context, [&](State& state, const TransferOptions&) { *length = state.body.length(); });
  }
  static void requestBody(kovo_instance, std::uint64_t offset, std::uint8_t* buffer,
                          std::uint64_t* bytesRead, std::uint64_t most, void* context) {
    *bytesRead = 0;
    with(context, [&](State& state, const TransferOptions&) {
      *bytesRead = std::min<std::uint64_t>(
          most,
          state.body.read(offset, reinterpret_cast<char*>(buffer), static_cast<std::size_t>(most)));
    });
  }
  static void progress(kovo_instance, std::uint64_t done, std::uint64_t total, void* context) {
    with(context, [&](State&, const TransferOptions& options) {
      if (options.onProgress) options.onProgress({done, total});
    });
  }
  static void paused(kovo_instance, void* context) {
    with(context, [](State&, const TransferOptions& options) {
      if (options.onPaused) options.onPaused();
    });
  }
  static void requestHeaders(kovo_instance, kovo_header* headers, std::uint32_t capacity,
                             std::uint32_t* count, void* context) {
    with(context, [&](State&, const TransferOptions& options) {
      put(options.headers, headers, capacity, count);
    });
  }
  static void parameters(kovo_instance, kovo_header* fields, std::uint32_t capacity,
                         std::uint32_t* count, void* context) {
    with(context, [&](State&, const TransferOptions& options) {
      put(options.parameters, fields, capacity, count);
    });
  }
  static void chunkHeaders(kovo_instance, kovo_chunk_type type, const char* url,
                           std::uint32_t number, kovo_header* headers, std::uint32_t capacity,
                           std::uint32_t* count, void* context) {
    with(context, [&](State&, const TransferOptions& options) {
      if (!options.chunkHeaders) return;
      put(options.chunkHeaders(static_cast<ChunkType>(type), url, number), headers, capacity,
          count);
    });
  }
  static std::int32_t requestFailed(kovo_instance, kovo_chunk_type type, std::uint32_t number,
                                    std::uint32_t code, std::uint32_t status, const char* message,
                                    void* context) {
    bool again = false;
    with(context, [&](State& state, const TransferOptions& options) {
      const RequestFailure failure{static_cast<ChunkType>(type), number, code, status,
                                   message == nullptr ? "" : message};
      again = options.onRequestFailed ? options.onRequestFailed(failure)
                                      : state.retry(failure, options.retries);
      const std::lock_guard<std::mutex> lock(state.mutex);
      if (!again) state.failedStatus = status;
    });
    return again ? 1 : 0;
  }
  static void certificatePolicy(kovo_instance, const char*, std::uint32_t* validate,
                                void* context) {
    with(context, [&](State&, const TransferOptions& options) {
      *validate = options.verifyCertificates ? 1 : 0;
    });
  }
  static void timeout(kovo_instance, std::uint32_t* seconds, void* context) {
    with(context, [&](State&, const TransferOptions& options) {
      *seconds = static_cast<std::uint32_t>(options.timeout.count());
    });
  }
  static void serverType(kovo_instance, std::uint32_t* type, void* context) {
    with(context, [&](State&, const TransferOptions& options) {
      *type = static_cast<kovo_server_type>(options.serverType);
    });
  }

  static void registerAll(kovo_instance instance) {
    kovoRegisterCompletionCallback(instance, &completion);
    kovoRegisterCancellationCallback(instance, &cancellation);
    kovoRegisterErrorCallback(instance, &error);
    kovoRegisterStatusLineCallback(instance, &statusLine);
    kovoRegisterResponseHeaderCallback(instance, &responseHeaders);
    kovoRegisterResponseBodyCallback(instance, &responseBody);
    kovoRegisterRequestBodyCallback(instance, &requestBody, &requestBodyLength);
    kovoRegisterProgressCallback(instance, &progress);
    kovoRegisterPausedCallback(instance, &paused);
    kovoRegisterAddHeaderCallback(instance, &requestHeaders);
    kovoRegisterAddParametersCallback(instance, &parameters);
    kovoRegisterAddChunkHeaderCallback(instance, &chunkHeaders);
    kovoRegisterChunkErrorRetryCallback(instance, &requestFailed);
    kovoRegisterSSLCertificatePolicyCallback(instance, &certificatePolicy);
    kovoRegisterSetTimeoutCallback(instance, &timeout);
    kovoRegisterSetServerTypeCallback(instance, &serverType);
  }
};

}  // namespace detail

/** Names one transfer. Copies name the same one; a default-made or moved-from one names none. */
class Transfer {
 public:
  Transfer() = default;

  /** Whether this names a transfer. */
  bool valid() const noexcept { return _state != nullptr; }

  /** Each answers whether the engine accepted it, and never waits. Cancelling ends the transfer
   * within a second, a paused one too; its bytes stay for the next download to the same file. */
  bool cancel() const noexcept { return _state != nullptr && _state->cancel(); }
  /** Lets running requests finish; then onPaused comes. False when it has ended. */
  bool pause() const noexcept { return _state != nullptr && _state->pause(); }
  /** Takes a pause back, even one that still drains. */
  bool resume() const noexcept { return _state != nullptr && _state->resume(); }

  /** Waits for the end. The result lives as long as the last handle. */
  const Result& wait() const& { return live().future.get(); }
  /** As above, by value: this handle may have been the last. */
  Result wait() && { return live().future.get(); }
  /** Whether the transfer ended in that time. */
  template <class Rep, class Period>
  bool waitFor(const std::chrono::duration<Rep, Period>& time) const {
    return live().future.wait_for(time) == std::future_status::ready;
  }
  /** Waits for the end; throws when the transfer failed. */
  const Response& get() const& {
    const Result& result = wait();
    result.check();
    return result.response;
  }
  /** As above, by value: this handle may have been the last. */
  Response get() && { return std::as_const(*this).get(); }
  /** For those who combine futures. Never holds an exception. */
  std::shared_future<Result> future() const { return live().future; }

 private:
  friend class Engine;
  explicit Transfer(std::shared_ptr<detail::State> state) : _state(std::move(state)) {}
  detail::State& live() const {
    if (_state == nullptr)
      throw Error(KOVO_ERROR_INVALID_PARAMETERS, "this handle names no transfer");
    return *_state;
  }

  std::shared_ptr<detail::State> _state;
};

namespace detail {

struct Logger {
  using Sink = std::function<void(LogLevel level, std::string_view message, const char* function,
                                  const char* file, std::uint32_t line)>;

  static Logger& instance() {
    static Logger* const only = new Logger;
    return *only;
  }
  static void write(std::uint32_t level, const char* message, const char* function,
                    const char* file, std::uint32_t line, void*) noexcept {
    try {
      if (const auto sink = instance().current()) {
        (*sink)(static_cast<LogLevel>(level), message, function, file, line);
      }
    } catch (...) {
    }
  }
  std::shared_ptr<const Sink> current() {
    const std::lock_guard<std::mutex> lock(_mutex);
    return _sink;
  }
  void set(Sink sink) {
    {
      const std::lock_guard<std::mutex> lock(_mutex);
      _sink = sink ? std::make_shared<const Sink>(std::move(sink)) : nullptr;
    }
    attach();
  }
  /** The library forgets its logging callback with its last engine. */
  void attach() { kovoRegisterLoggingCallback(current() ? &write : nullptr, nullptr); }

 private:
  std::mutex _mutex;
  std::shared_ptr<const Sink> _sink;
};

}  // namespace detail

/** Moves files over HTTP. Movable; a moved-from engine starts nothing. */
class Engine {
 public:
  /** Throws Error when the engine cannot be made. */
  explicit Engine(const EngineOptions& options = {})
      : _callbacks(options.callbacks), _core(std::make_shared<detail::Core>()) {
    kovo_config config{};
    config.maxActiveWorkProviders = options.activeTransfers;
    config.workerPoolLowerLimit = std::min<std::uint32_t>(options.connections, 2);
    config.workerPoolUpperLimit = options.connections;
    config.chunkSize = options.chunkSize;
    config.getCacheMaxSize = options.rangeCacheSize;
    config.progressInterval = static_cast<std::uint32_t>(options.progressInterval.count());
    config.chunkUploads = options.chunkUploads ? 1 : 0;
    config.chunkDownloads = options.chunkDownloads ? 1 : 0;
    config.adaptiveStrategy = options.adaptive ? 1 : 0;
    config.getCacheEnabled = options.rangeCache ? 1 : 0;
    config.adaptiveInitialThreadCount = std::min<std::uint32_t>(options.connections, 8);
    config.timeoutBase = static_cast<std::uint32_t>(options.timeout.count());
    config.tryResumableTransfer = options.resume ? 1 : 0;
    if (detail::Logger::instance().current()) detail::Logger::instance().attach();
    {
      // The figure is the process's: two engines made at the same time take turns.
      static std::mutex making;
      const std::lock_guard<std::mutex> lock(making);
      kovoSetHardwareConcurrency(options.connections + 1);
      _core->instance = kovoCreate(&config);
    }
    if (_core->instance == nullptr) throw Error(KOVO_ERROR_UNKNOWN, "the engine cannot start");
    detail::Trampolines::registerAll(_core->instance);
    setRates(options.uploadRate, options.downloadRate);
  }
  ~Engine() { close(); }
  /** Takes the transfers over; the other engine starts nothing any more. */
  Engine(Engine&& other) noexcept = default;
  /** As above, after closing what this engine was. */
  Engine& operator=(Engine&& other) noexcept {
    if (this != &other) {
      close();
      _callbacks = std::move(other._callbacks);
      _core = std::move(other._core);
    }
    return *this;
  }

  /** Ends all transfers, each with a result, and the engine. Waits for callbacks that are running,
   * except inside one. */
  void close() noexcept {
    if (_core == nullptr) return;
    const std::shared_ptr<detail::Core> core = std::move(_core);
    _core = nullptr;
    kovo_instance instance = nullptr;
    {
      const std::unique_lock<std::shared_mutex> lock(core->mutex);
      instance = std::exchange(core->instance, nullptr);
    }
    for (const auto& state : detail::Registry::instance().of(core.get(), false)) state->stop();
    if (kovoDestroy(&instance) == KOVO_ERROR_NONE) {
      endPaused(*core);
    } else {
      detail::Reaper::instance().run([core, instance]() mutable {
        kovoDestroy(&instance);
        endPaused(*core);
      });
    }
  }

  /** Whether this engine can start transfers: neither closed nor moved from. */
  bool valid() const noexcept { return _core != nullptr; }
  /** For what kovo.h offers beyond this class. Its callbacks belong to this class. */
  kovo_instance handle() const noexcept { return _core == nullptr ? nullptr : _core->instance; }

  /** Downloads url into a file, replacing it. */
  Transfer download(const std::string& url, const std::string& path, TransferOptions options = {}) {
    return start(std::move(options), {}, [&](const Start& s) {
      s.state.longestBody = detail::kLongestErrorBody;
      return kovoDownload(s.instance, url.c_str(), path.c_str(), s.mode, s.priority, s.context,
                          s.token);
    });
  }
  /** Downloads url to onBody or Response::body. */
  Transfer downloadToMemory(const std::string& url, TransferOptions options = {}) {
    return start(std::move(options), {}, [&](const Start& s) {
      return kovoDownloadToMemory(s.instance, url.c_str(), s.mode, s.priority, s.context, s.token);
    });
  }
  /** As above, length bytes from offset on; a length of 0 means to the end. */
  Transfer downloadRange(const std::string& url, std::uint64_t offset, std::uint64_t length,
                         TransferOptions options = {}) {
    return start(std::move(options), {}, [&](const Start& s) {
      s.state.bodyStart = offset;
      return kovoDownloadRangeToMemory(s.instance, url.c_str(), offset, length, s.mode, s.priority,
                                       s.context, s.token);
    });
  }
  /** Uploads a file with PUT, POST or PATCH. */
  Transfer upload(Verb verb, const std::string& url, const std::string& path,
                  TransferOptions options = {}) {
    return start(std::move(options), {}, [&](const Start& s) {
      return kovoUpload(s.instance, static_cast<kovo_http_verb>(verb), url.c_str(), path.c_str(),
                        s.mode, s.priority, s.context, s.token);
    });
  }
  /** Uploads a body from memory with PUT, POST or PATCH. */
  Transfer uploadFromMemory(Verb verb, const std::string& url, Body body,
                            TransferOptions options = {}) {
    return start(std::move(options), std::move(body), [&](const Start& s) {
      return kovoUploadFromMemory(s.instance, static_cast<kovo_http_verb>(verb), url.c_str(),
                                  s.priority, s.context, s.token);
    });
  }
  /** Sends one request. An answer with any status is a success: look at Response::status. */
  Transfer send(Verb verb, const std::string& url, Body body = {}, TransferOptions options = {},
                bool acceptGzip = true) {
    return start(std::move(options), std::move(body), [&](const Start& s) {
      s.state.anyStatusIsFine = true;
      return kovoSendRequest(s.instance, static_cast<kovo_http_verb>(verb), url.c_str(), s.priority,
                             acceptGzip ? 1 : 0, s.context, s.token);
    });
  }

  /** Most bytes per second over the whole engine; 0: no limit. */
  void setRates(std::uint64_t upload, std::uint64_t download) {
    const auto kibibytes = [](std::uint64_t bytes) {
      return bytes == 0 ? 0 : std::max<std::uint64_t>(bytes / 1024, 1);
    };
    control([&](kovo_instance instance) {
      return kovoSetTargetDataRates(instance, kibibytes(upload), kibibytes(download));
    });
  }
  /** Most requests that run at once, up to EngineOptions::connections. */
  void setConnections(std::uint32_t connections) {
    control([&](kovo_instance i) { return kovoSetWorkerPoolUpperLimit(i, connections); });
  }
  /** For the proxy that the environment names. */
  void setProxyCredentials(const std::string& user, const std::string& password) {
    control([&](kovo_instance instance) {
      return kovoSetSystemProxyCredentials(instance, user.c_str(), password.c_str());
    });
  }
  /** Bytes above which uploads to a sync service go in parts. */
  void setMultipartUploadThreshold(std::uint64_t bytes) {
    control([&](kovo_instance instance) {
      kovoSetMultipartUploadThreshold(instance, bytes);
      return KOVO_ERROR_NONE;
    });
  }
  /** Empties the range cache. */
  void clearCache() {
    control([](kovo_instance instance) {
      kovoClearCache(instance);
      return KOVO_ERROR_NONE;
    });
  }

 private:
  struct Start {
    kovo_instance instance;
    detail::State& state;
    kovo_chunking_mode mode;
    std::uint32_t priority;
    void* context;
    kovo_async_token* token;
  };

  template <class Call>
  Transfer start(TransferOptions options, Body body, Call&& call) {
    detail::Trampolines::check(options.headers, 64);
    detail::Trampolines::check(options.parameters, 32);
    const auto inherit = [](auto& own, const auto& shared) {
      if (!own) own = shared;
    };
    inherit(options.onProgress, _callbacks.onProgress);
    inherit(options.onStatus, _callbacks.onStatus);
    inherit(options.onHeaders, _callbacks.onHeaders);
    inherit(options.onBody, _callbacks.onBody);
    inherit(options.onPaused, _callbacks.onPaused);
    inherit(options.chunkHeaders, _callbacks.chunkHeaders);
    inherit(options.onRequestFailed, _callbacks.onRequestFailed);
    inherit(options.onFinished, _callbacks.onFinished);
    const auto mode = static_cast<kovo_chunking_mode>(options.chunking);
    const std::uint32_t priority = options.priority;

    const auto state = std::make_shared<detail::State>(_core, std::move(options), std::move(body));
    void* const context = detail::Registry::instance().add(state);
    kovo_async_token token = NOTHING_ASYNC_TOKEN;
    const kovo_error result = onCore([&](kovo_instance instance) {
      return call(Start{instance, *state, mode, priority, context, &token});
    });
    if (result != KOVO_ERROR_NONE) {
      detail::Registry::instance().take(context);
      throw Error(result);
    }
    state->started(token);
    return Transfer(state);
  }

  template <class Call>
  kovo_error onCore(Call&& call) {
    if (_core == nullptr) return KOVO_ERROR_INSTANCE_RELEASED;
    return _core->call(call);
  }
  template <class Call>
  void control(Call&& call) {
    const kovo_error result = onCore(call);
    if (result != KOVO_ERROR_NONE) throw Error(result);
  }
  /** Transfers that lay paused get no final callback from the library. */
  static void endPaused(const detail::Core& core) noexcept {
    for (const auto& state : detail::Registry::instance().of(&core, true)) {
      state->finish(KOVO_ERROR_CANCELLED, "the engine was destroyed");
    }
  }

  Callbacks _callbacks;
  std::shared_ptr<detail::Core> _core;
};

/** Takes the log lines of the process, from any thread; an empty function gives them back to the
 * log file. */
inline void setLogger(detail::Logger::Sink sink) {
  detail::Logger::instance().set(std::move(sink));
}
/** Sets the level of the process; the first engine sets it anew. */
inline void setLogLevel(LogLevel level) {
  kovoSetLogLevel(static_cast<kovo_log_level>(level));
}

/** The domain of S3 storage, process-wide; empty: the public one. */
inline void setS3Endpoint(const std::string& domain) {
  const kovo_error result = kovoSetS3Endpoint(domain.c_str());
  if (result != KOVO_ERROR_NONE) throw Error(result);
}

/** The version of the library. */
inline std::string version() {
  return kovoVersion();
}

}  // namespace kovo

#endif  // KOVO_KOVO_HPP_
