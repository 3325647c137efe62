#include "engine.h"

#include <kovo/kovo_ext.h>

#include <algorithm>

#include "failure.h"
#include "transfer.h"

namespace kovo::cli {

Engine::Engine(const EngineOptions& options) {
  // One thread serves one connection, and the library keeps one thread of the figure back.
  kovoSetHardwareConcurrency(options.connections + 1);

  kovo_config config{};
  config.workQueuePolicy = options.inTurn ? 1 : 0;
  config.maxActiveWorkProviders = 64;
  config.workerPoolLowerLimit = std::min(options.connections, 2U);
  config.workerPoolUpperLimit = options.connections;
  config.chunkSize = options.chunkSize;
  config.getCacheMaxSize = 536870912;
  config.progressInterval = options.progressInterval;
  config.chunkUploads = options.chunkUploads ? 1 : 0;
  config.chunkDownloads = 1;
  config.adaptiveStrategy = options.adaptive ? 1 : 0;
  config.getCacheEnabled = options.rangeCache ? 1 : 0;
  config.adaptiveInitialThreadCount = std::min(options.connections, 8U);
  config.timeoutBase = 30;
  config.tryResumableTransfer = 1;
  _instance = kovoCreate(&config);
  if (_instance == nullptr) {
    throw Failure(ExitCode::kOther, "the transfer engine cannot start",
                  "Is there enough memory, and a home folder that can be written?");
  }
  Transfer::registerCallbacks(_instance);
  if (!options.proxyUser.empty()) {
    kovoSetSystemProxyCredentials(_instance, options.proxyUser.c_str(),
                                  options.proxyPassword.c_str());
  }
  // Kibibytes per second; a limit below one must not turn into none.
  const auto rate = [](std::uint64_t bytes) {
    return bytes == 0 ? 0 : std::max<std::uint64_t>(bytes / 1024, 1);
  };
  kovoSetTargetDataRates(_instance, rate(options.uploadBytesPerSecond),
                         rate(options.downloadBytesPerSecond));
}

Engine::~Engine() {
  kovoDestroy(&_instance);
}

}  // namespace kovo::cli
