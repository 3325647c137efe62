#include "core/kovo_settings.h"

#include <gtest/gtest.h>

namespace kovo {
namespace {

template <typename T>
void expectBorder(T kovo_config::*given, T KovoSettings::*taken, T most, T byDefault) {
  kovo_config config{};
  for (const auto& [value, expected] :
       {std::pair<T, T>{most, most}, {static_cast<T>(most + 1), byDefault}, {0, byDefault}}) {
    config.*given = value;
    EXPECT_EQ(KovoSettings::fromConfig(&config).*taken, expected) << value;
  }
}

TEST(KovoSettingsTest, NumbersAreTakenUpToTheirBordersOnly) {
  using In = kovo_config;
  using Out = KovoSettings;
  expectBorder(&In::maxActiveWorkProviders, &Out::maxActiveWorkProviders, 1024U, 4U);
  expectBorder(&In::workerPoolUpperLimit, &Out::workerPoolUpperLimit, 64U, 16U);
  // Above the upper limit that came out.
  expectBorder(&In::workerPoolLowerLimit, &Out::workerPoolLowerLimit, 16U, 2U);
  expectBorder<std::uint64_t>(&In::chunkSize, &Out::chunkSize, 52428800, 2097152);
  expectBorder<std::uint64_t>(&In::getCacheMaxSize, &Out::getCacheMaxSize, 4294967295, 536870912);
  expectBorder(&In::adaptiveInitialThreadCount, &Out::adaptiveInitialThreadCount, 64U, 8U);
}

TEST(KovoSettingsTest, ZeroedConfigTurnsOffWhatIsSetByOneAlone) {
  kovo_config config{};
  config.workQueuePolicy = 2;
  config.chunkUploads = 2;
  config.basePath = "there";
  const KovoSettings settings = KovoSettings::fromConfig(&config);
  EXPECT_FALSE(settings.chunkDownloads || settings.adaptiveStrategy || settings.getCacheEnabled ||
               settings.tryResumableTransfer || settings.chunkUploads);
  EXPECT_EQ(settings.progressInterval + settings.timeoutBase + settings.workQueuePolicy, 0U);
  EXPECT_EQ(settings.basePath, "there");
}

}  // namespace
}  // namespace kovo
