#include "bench_engine.h"

#include <kovo/kovo_ext.h>

#include <algorithm>
#include <cstdio>

namespace kovo::bench {

class Engine::Callbacks {
 public:
  static Engine& of(void* context) { return *static_cast<Engine*>(context); }
  static void completion(kovo_instance, void* context) { of(context).finished(nullptr); }
  static void cancellation(kovo_instance, void* context) { of(context).finished("cancelled"); }
  static void error(kovo_instance, std::uint32_t, const char* message, void* context) {
    of(context).finished(message);
  }
  static void statusLine(kovo_instance, const char*, std::uint32_t status, const char* reason,
                         void*) {
    if (status >= 300) std::fprintf(stderr, "status %u %s\n", status, reason);
  }
  static void responseBody(kovo_instance, std::uint64_t, const std::uint8_t*, std::uint64_t,
                           void*) {}
  static void certificatePolicy(kovo_instance, const char*, std::uint32_t* validateChain,
                                void* context) {
    if (of(context)._options.insecure) *validateChain = 0;
  }
  static void serverType(kovo_instance, std::uint32_t* type, void* context) {
    *type = of(context)._options.serverType;
  }
};

Engine::Engine(const EngineOptions& options) : _options(options) {
  // The pool would be sized from the processors: one thread on a machine of two.
  kovoSetHardwareConcurrency(options.connections + 1);
  kovo_config config{};
  config.maxActiveWorkProviders = options.activeTransfers;
  config.workerPoolLowerLimit = std::min(options.connections, 2U);
  config.workerPoolUpperLimit = options.connections;
  config.chunkSize = options.chunkSize;
  config.getCacheMaxSize = 4294967295;
  config.progressInterval = 2000;
  config.chunkUploads = options.chunkUploads ? 1 : 0;
  config.chunkDownloads = 1;
  config.adaptiveStrategy = options.adaptive ? 1 : 0;
  config.getCacheEnabled = options.rangeCache ? 1 : 0;
  config.adaptiveInitialThreadCount = std::min(options.connections, 8U);
  config.timeoutBase = 30;
  config.tryResumableTransfer = 1;
  // A host that minds speed takes the log lines itself; the default is a file, flushed line by
  // line.
  kovoRegisterLoggingCallback(
      [](std::uint32_t, const char*, const char*, const char*, std::uint32_t, void*) {}, nullptr);
  _instance = kovoCreate(&config);
  if (_instance == nullptr) {
    std::fprintf(stderr, "no engine\n");
    std::exit(1);
  }
  kovoRegisterCompletionCallback(_instance, &Callbacks::completion);
  kovoRegisterCancellationCallback(_instance, &Callbacks::cancellation);
  kovoRegisterErrorCallback(_instance, &Callbacks::error);
  kovoRegisterStatusLineCallback(_instance, &Callbacks::statusLine);
  kovoRegisterResponseBodyCallback(_instance, &Callbacks::responseBody);
  kovoRegisterSSLCertificatePolicyCallback(_instance, &Callbacks::certificatePolicy);
  kovoRegisterSetServerTypeCallback(_instance, &Callbacks::serverType);
}

Engine::~Engine() {
  kovoDestroy(&_instance);
}

void Engine::started(kovo_error result) {
  if (result != KOVO_ERROR_NONE) {
    std::fprintf(stderr, "refused: %s\n", kovoErrorString(result));
    std::exit(1);
  }
  const std::lock_guard<std::mutex> hold(_mutex);
  ++_running;
}

void Engine::finished(const char* failure) {
  const std::lock_guard<std::mutex> hold(_mutex);
  // A short transfer may end before its start call has been counted: the sum is right either way.
  --_running;
  if (failure != nullptr) {
    _failed = true;
    std::fprintf(stderr, "failed: %s\n", failure);
  }
  if (_failed || static_cast<std::ptrdiff_t>(_running) <= _awaited) _changed.notify_all();
}

bool Engine::waitUntilAtMost(std::size_t count) {
  std::unique_lock<std::mutex> hold(_mutex);
  _awaited = static_cast<std::ptrdiff_t>(count);
  _changed.wait(hold, [&] { return static_cast<std::ptrdiff_t>(_running) <= _awaited; });
  return !_failed;
}

const char* argument(int count, char** arguments, const char* name, const char* fallback) {
  for (int i = 1; i + 1 < count; ++i) {
    if (std::strcmp(arguments[i], name) == 0) return arguments[i + 1];
  }
  return fallback;
}

std::uint64_t number(int count, char** arguments, const char* name, std::uint64_t fallback) {
  const char* const text = argument(count, arguments, name, nullptr);
  return text == nullptr ? fallback : std::strtoull(text, nullptr, 10);
}

bool flag(int count, char** arguments, const char* name) {
  return std::any_of(arguments + 1, arguments + count,
                     [&](const char* text) { return std::strcmp(text, name) == 0; });
}

EngineOptions engineOptions(int count, char** arguments) {
  EngineOptions options;
  options.connections = static_cast<std::uint32_t>(number(count, arguments, "--connections", 16));
  options.chunkSize = number(count, arguments, "--chunk-size", options.chunkSize);
  options.activeTransfers = static_cast<std::uint32_t>(number(count, arguments, "--active", 4));
  options.rangeCache = flag(count, arguments, "--cache");
  options.adaptive = flag(count, arguments, "--adaptive");
  options.insecure = flag(count, arguments, "--insecure");
  return options;
}

}  // namespace kovo::bench
