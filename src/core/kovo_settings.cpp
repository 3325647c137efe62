#include "core/kovo_settings.h"

namespace kovo {
namespace {

template <typename T>
void takeIfWithin(T& setting, T value, T least, T most) {
  if (value >= least && value <= most) {
    setting = value;
  }
}

}  // namespace

KovoSettings KovoSettings::fromConfig(const kovo_config* config) {
  KovoSettings settings;
  if (config == nullptr) {
    return settings;
  }
  settings.workQueuePolicy = config->workQueuePolicy == 1 ? 1 : 0;
  takeIfWithin(settings.maxActiveWorkProviders, config->maxActiveWorkProviders, 1U, 1024U);
  takeIfWithin(settings.workerPoolUpperLimit, config->workerPoolUpperLimit, 1U, 64U);
  takeIfWithin(settings.workerPoolLowerLimit, config->workerPoolLowerLimit, 1U,
               settings.workerPoolUpperLimit);
  takeIfWithin<std::uint64_t>(settings.chunkSize, config->chunkSize, 1, 52428800);
  takeIfWithin<std::uint64_t>(settings.getCacheMaxSize, config->getCacheMaxSize, 1, 4294967295);
  settings.progressInterval = config->progressInterval;
  settings.chunkUploads = config->chunkUploads == 1;
  settings.chunkDownloads = config->chunkDownloads == 1;
  settings.adaptiveStrategy = config->adaptiveStrategy == 1;
  settings.getCacheEnabled = config->getCacheEnabled == 1;
  takeIfWithin(settings.adaptiveInitialThreadCount, config->adaptiveInitialThreadCount, 1U, 64U);
  settings.reserved2 = config->reserved2 == 1;
  settings.timeoutBase = config->timeoutBase;
  if (config->basePath != nullptr) {
    settings.basePath = config->basePath;
  }
  settings.tryResumableTransfer = config->tryResumableTransfer == 1;
  settings.reserved3 = config->reserved3;
  settings.reserved4 = config->reserved4;
  return settings;
}

}  // namespace kovo
