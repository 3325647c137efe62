#include "support/engine_fixture.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

namespace kovo::test {
namespace {

/* Monitor callbacks carry the context of some transfer; their records are kept per process. */
std::mutex monitorMutex;
std::vector<std::pair<kovo_instance, TestEngine::MonitorRecord>> monitored;

void copyFields(const Fields& from, kovo_header* to, uint32_t capacity, uint32_t* count) {
  const size_t most = std::min<size_t>(from.size(), capacity);
  for (size_t i = 0; i < most; ++i) {
    std::strncpy(to[i].name, from[i].first.c_str(), sizeof to[i].name - 1);
    std::strncpy(to[i].value, from[i].second.c_str(), sizeof to[i].value - 1);
  }
  *count = static_cast<uint32_t>(most);
}

}  // namespace

kovo_config defaultConfig() {
  kovo_config config{};
  config.maxActiveWorkProviders = 4;
  config.workerPoolLowerLimit = 2;
  config.workerPoolUpperLimit = 16;
  config.chunkSize = 2 * 1024 * 1024;
  config.getCacheMaxSize = 512 * 1024 * 1024;
  config.progressInterval = 2000;
  config.chunkDownloads = 1;
  config.adaptiveStrategy = 1;
  config.getCacheEnabled = 1;
  config.adaptiveInitialThreadCount = 8;
  config.timeoutBase = 30;
  config.tryResumableTransfer = 1;
  return config;
}

/* The callbacks a TestEngine registers: each writes into the record that is its context. */
struct TestEngine::Callbacks {
  static TransferRecord& record(void* context) { return *static_cast<TransferRecord*>(context); }

  static void note(void* context, const std::function<void(TransferEvents&)>& change) {
    record(context).update([&change](TransferEvents& events) {
      if (events.finals() != 0) ++events.callbacksAfterFinal;
      change(events);
    });
  }
  static void call(const std::function<void()>& hook) {
    if (hook) hook();
  }

  static void completion(kovo_instance, void* context) {
    call(record(context).hooks().onFinal);
    note(context, [](TransferEvents& e) { ++e.completions; });
  }
  static void error(kovo_instance, uint32_t code, const char* message, void* context) {
    call(record(context).hooks().onFinal);
    note(context, [code, message](TransferEvents& e) {
      ++e.errors;
      e.errorCode = code;
      e.errorText = message == nullptr ? "<null>" : message;
    });
  }
  static void cancellation(kovo_instance, void* context) {
    call(record(context).hooks().onFinal);
    note(context, [](TransferEvents& e) { ++e.cancellations; });
  }
  static void paused(kovo_instance, void* context) {
    /* The hook first: it may resume, and the waiter for the count sees its effect. */
    call(record(context).hooks().onPaused);
    note(context, [](TransferEvents& e) { ++e.pauses; });
  }
  static void statusLine(kovo_instance, const char* version, uint32_t status, const char* reason,
                         void* context) {
    note(context, [=](TransferEvents& e) {
      ++e.statusLines;
      e.httpVersion = version;
      e.status = status;
      e.reason = reason == nullptr ? "" : reason;
    });
    call(record(context).hooks().onStatusLine);
  }
  static void responseHeaders(kovo_instance, const kovo_header_ref* headers, uint32_t count,
                              void* context) {
    note(context, [=](TransferEvents& e) {
      ++e.headerCalls;
      e.headers.clear();
      for (uint32_t i = 0; i < count; ++i)
        e.headers.emplace_back(headers[i].name, headers[i].value);
    });
    call(record(context).hooks().onHeaders);
  }
  static void responseBody(kovo_instance, uint64_t offset, const uint8_t* data, uint64_t size,
                           void* context) {
    const std::string_view bytes(reinterpret_cast<const char*>(data), size);
    const TransferHooks& hooks = record(context).hooks();
    if (hooks.onBody) hooks.onBody(offset, bytes);
    note(context, [&](TransferEvents& e) {
      ++e.bodyCalls;
      e.bodyBytes += size;
      if (!hooks.dropsBody) e.body[offset] = bytes;
    });
  }
  static void progress(kovo_instance, uint64_t done, uint64_t total, void* context) {
    note(context, [=](TransferEvents& e) { e.progress.emplace_back(done, total); });
    call(record(context).hooks().onProgress);
  }
  static void requestBody(kovo_instance, uint64_t offset, uint8_t* buffer, uint64_t* bytesRead,
                          uint64_t maxLength, void* context) {
    const std::string& body = record(context).hooks().requestBody;
    const uint64_t left = offset < body.size() ? body.size() - offset : 0;
    *bytesRead = std::min(left, maxLength);
    if (*bytesRead != 0) std::memcpy(buffer, body.data() + offset, *bytesRead);
  }
  static void requestBodyLength(kovo_instance, uint64_t* length, void* context) {
    *length = record(context).hooks().requestBody.size();
  }
  static void requestHeaders(kovo_instance, kovo_header* headers, uint32_t capacity,
                             uint32_t* count, void* context) {
    copyFields(record(context).hooks().requestHeaders, headers, capacity, count);
    note(context, [](TransferEvents& e) { ++e.requestHeaderCalls; });
  }
  static void parameters(kovo_instance, kovo_header* parameters, uint32_t capacity, uint32_t* count,
                         void* context) {
    copyFields(record(context).hooks().parameters, parameters, capacity, count);
    note(context, [](TransferEvents& e) { ++e.parameterCalls; });
  }
  static void chunkHeaders(kovo_instance, kovo_chunk_type type, const char* url, uint32_t number,
                           kovo_header* headers, uint32_t capacity, uint32_t* count,
                           void* context) {
    copyFields(record(context).hooks().chunkHeaders, headers, capacity, count);
    note(context, [=](TransferEvents& e) {
      e.chunkHeaderCalls.push_back({type, number, 0, 0, url});
    });
  }
  static int32_t retry(kovo_instance, kovo_chunk_type type, uint32_t number, uint32_t code,
                       uint32_t status, const char* message, void* context) {
    note(context, [=](TransferEvents& e) {
      e.retryCalls.push_back({type, number, code, status, message == nullptr ? "" : message});
    });
    const auto& decide = record(context).hooks().retry;
    return decide ? decide(code, status) : 0;
  }
  static void policy(kovo_instance, const char* url, uint32_t* validateChain, void* context) {
    *validateChain = record(context).hooks().validateChain;
    note(context, [=](TransferEvents& e) {
      ++e.policyCalls;
      e.policyUrl = url;
    });
  }
  static void timeout(kovo_instance, uint32_t* seconds, void* context) {
    *seconds = record(context).hooks().timeoutSeconds;
    note(context, [](TransferEvents& e) { ++e.timeoutCalls; });
  }
  static void serverType(kovo_instance, uint32_t* type, void* context) {
    *type = record(context).hooks().serverType;
  }
  static void monitor(kovo_instance instance, uint32_t type, const void* data, uint64_t length,
                      void*) {
    const std::lock_guard lock(monitorMutex);
    monitored.emplace_back(
        instance, MonitorRecord{type, std::string(static_cast<const char*>(data), length)});
  }

  static void registerAll(kovo_instance instance) {
    kovoRegisterCompletionCallback(instance, &completion);
    kovoRegisterErrorCallback(instance, &error);
    kovoRegisterCancellationCallback(instance, &cancellation);
    kovoRegisterPausedCallback(instance, &paused);
    kovoRegisterStatusLineCallback(instance, &statusLine);
    kovoRegisterResponseHeaderCallback(instance, &responseHeaders);
    kovoRegisterResponseBodyCallback(instance, &responseBody);
    kovoRegisterProgressCallback(instance, &progress);
    kovoRegisterRequestBodyCallback(instance, &requestBody, &requestBodyLength);
    kovoRegisterAddHeaderCallback(instance, &requestHeaders);
    kovoRegisterAddParametersCallback(instance, &parameters);
    kovoRegisterAddChunkHeaderCallback(instance, &chunkHeaders);
    kovoRegisterChunkErrorRetryCallback(instance, &retry);
    kovoRegisterSSLCertificatePolicyCallback(instance, &policy);
    kovoRegisterSetTimeoutCallback(instance, &timeout);
    kovoRegisterSetServerTypeCallback(instance, &serverType);
    kovoRegisterMonitorCallback(instance, &monitor);
  }
};

TestEngine::TestEngine(const TestEngineOptions& options)
    : _folder("kovo-engine"),
      _dataHome(options.dataHome.empty() ? _folder.file("data") : options.dataHome) {
  ::setenv("XDG_DATA_HOME", _dataHome.c_str(), 1);
  kovoSetHardwareConcurrency(options.hardware);
  _instance = kovoCreate(&options.config);
  if (_instance == nullptr) throw std::runtime_error("kovoCreate failed");
  Callbacks::registerAll(_instance);
}

TestEngine::~TestEngine() {
  if (_instance != nullptr) destroy();
}

TestEngine::Milliseconds TestEngine::destroy() {
  const kovo_instance gone = _instance;
  const auto before = std::chrono::steady_clock::now();
  EXPECT_EQ(kovoDestroy(&_instance), KOVO_ERROR_NONE);
  const auto after = std::chrono::steady_clock::now();
  EXPECT_EQ(_instance, nullptr);
  {
    const std::lock_guard lock(monitorMutex);
    std::erase_if(monitored, [gone](const auto& entry) { return entry.first == gone; });
  }
  checkFinals();
  return std::chrono::duration_cast<Milliseconds>(after - before);
}

void TestEngine::checkFinals() const {
  const std::lock_guard lock(_mutex);
  for (const TransferRecord& record : _records) {
    const TransferEvents events = record.events();
    if (record.startResult != KOVO_ERROR_NONE) {
      EXPECT_EQ(events.finals(), 0u) << "a refused transfer called back";
      continue;
    }
    EXPECT_TRUE(events.finals() == 1 || (events.finals() == 0 && events.pauses != 0))
        << "transfer " << record.token << ": " << events.completions << " completions, "
        << events.errors << " errors, " << events.cancellations << " cancellations";
    EXPECT_EQ(events.callbacksAfterFinal, 0u) << "transfer " << record.token;
    EXPECT_LE(events.statusLines, 1u) << "transfer " << record.token;
  }
}

template <class Start>
TransferRecord& TestEngine::start(TransferHooks hooks, Start call) {
  TransferRecord* record = nullptr;
  {
    const std::lock_guard lock(_mutex);
    record = &_records.emplace_back(std::move(hooks));
  }
  kovo_async_token token = NOTHING_ASYNC_TOKEN;
  record->startResult = call(record, &token);
  record->token = token;
  EXPECT_EQ(record->startResult == KOVO_ERROR_NONE, token != NOTHING_ASYNC_TOKEN);
  return *record;
}

TransferRecord& TestEngine::download(const std::string& url, const std::string& path,
                                     TransferHooks hooks, kovo_chunking_mode mode,
                                     uint32_t priority) {
  return start(std::move(hooks), [&](void* context, kovo_async_token* token) {
    return kovoDownload(_instance, url.c_str(), path.c_str(), mode, priority, context, token);
  });
}

TransferRecord& TestEngine::downloadToMemory(const std::string& url, TransferHooks hooks,
                                             kovo_chunking_mode mode, uint32_t priority) {
  return start(std::move(hooks), [&](void* context, kovo_async_token* token) {
    return kovoDownloadToMemory(_instance, url.c_str(), mode, priority, context, token);
  });
}

TransferRecord& TestEngine::downloadRange(const std::string& url, uint64_t from, uint64_t length,
                                          TransferHooks hooks, kovo_chunking_mode mode) {
  return start(std::move(hooks), [&](void* context, kovo_async_token* token) {
    return kovoDownloadRangeToMemory(_instance, url.c_str(), from, length, mode, 0, context, token);
  });
}

TransferRecord& TestEngine::upload(kovo_http_verb verb, const std::string& url,
                                   const std::string& path, TransferHooks hooks,
                                   kovo_chunking_mode mode) {
  return start(std::move(hooks), [&](void* context, kovo_async_token* token) {
    return kovoUpload(_instance, verb, url.c_str(), path.c_str(), mode, 0, context, token);
  });
}

TransferRecord& TestEngine::uploadFromMemory(kovo_http_verb verb, const std::string& url,
                                             TransferHooks hooks) {
  return start(std::move(hooks), [&](void* context, kovo_async_token* token) {
    return kovoUploadFromMemory(_instance, verb, url.c_str(), 0, context, token);
  });
}

TransferRecord& TestEngine::sendRequest(kovo_http_verb verb, const std::string& url,
                                        TransferHooks hooks, uint32_t acceptGzip,
                                        uint32_t priority) {
  return start(std::move(hooks), [&](void* context, kovo_async_token* token) {
    return kovoSendRequest(_instance, verb, url.c_str(), priority, acceptGzip, context, token);
  });
}

bool TestEngine::wait(const TransferRecord& record, Milliseconds timeout) const {
  const bool came =
      record.waitFor([](const TransferEvents& e) { return e.finals() != 0; }, timeout);
  EXPECT_TRUE(came) << "no final callback of transfer " << record.token << " in " << timeout.count()
                    << " ms";
  return came;
}

bool TestEngine::waitForPause(const TransferRecord& record, uint32_t times,
                              Milliseconds timeout) const {
  const bool came = record.waitFor(
      [times](const TransferEvents& e) { return e.pauses >= times || e.finals() != 0; }, timeout);
  EXPECT_TRUE(came) << "no paused callback of transfer " << record.token;
  return came && record.events().pauses >= times;
}

kovo_error TestEngine::resume(const TransferRecord& record) {
  kovo_async_token token = NOTHING_ASYNC_TOKEN;
  const kovo_error result = kovoResume(_instance, record.startedToken(), nullptr, &token);
  if (result == KOVO_ERROR_NONE) {
    EXPECT_EQ(token, record.token.load());
  } else {
    EXPECT_EQ(token, NOTHING_ASYNC_TOKEN);
  }
  return result;
}

std::vector<TestEngine::MonitorRecord> TestEngine::monitorRecords() const {
  const std::lock_guard lock(monitorMutex);
  std::vector<MonitorRecord> mine;
  for (const auto& [instance, record] : monitored) {
    if (instance == _instance) mine.push_back(record);
  }
  return mine;
}

}  // namespace kovo::test
