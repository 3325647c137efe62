#pragma once

#include <kovo/kovo.h>

#include <cstdint>
#include <string>

namespace kovo {

// The engine's validated copy of kovo_config; constant after construction.
struct KovoSettings {
  std::uint32_t workQueuePolicy = 0;
  std::uint32_t maxActiveWorkProviders = 4;
  std::uint32_t workerPoolLowerLimit = 2;
  std::uint32_t workerPoolUpperLimit = 16;
  std::uint64_t chunkSize = 2097152;
  std::uint64_t getCacheMaxSize = 536870912;
  std::uint32_t progressInterval = 2000;
  bool chunkUploads = false;
  bool chunkDownloads = true;
  bool adaptiveStrategy = true;
  bool getCacheEnabled = true;
  std::uint32_t adaptiveInitialThreadCount = 8;
  bool reserved2 = false;
  std::uint32_t timeoutBase = 30;
  std::string basePath;
  bool tryResumableTransfer = true;
  std::uint32_t reserved3 = 0;
  std::uint32_t reserved4 = 0;

  // Applies the acceptance rules told in kovo.h; null gives every default.
  static KovoSettings fromConfig(const kovo_config* config);
};

}  // namespace kovo
