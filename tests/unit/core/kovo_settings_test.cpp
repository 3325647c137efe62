#include "core/kovo_settings.h"

#include <gtest/gtest.h>

#include <string>

namespace kovo {
namespace {

TEST(KovoSettingsTest, NoConfigGivesEveryDefault) {
  const KovoSettings settings = KovoSettings::fromConfig(nullptr);
  EXPECT_EQ(settings.maxActiveWorkProviders, 4U);
  EXPECT_EQ(settings.workerPoolLowerLimit, 2U);
  EXPECT_EQ(settings.workerPoolUpperLimit, 16U);
  EXPECT_EQ(settings.chunkSize, 2097152U);
  EXPECT_EQ(settings.getCacheMaxSize, 536870912U);
  EXPECT_EQ(settings.progressInterval, 2000U);
  EXPECT_FALSE(settings.chunkUploads);
  EXPECT_TRUE(settings.chunkDownloads);
  EXPECT_TRUE(settings.adaptiveStrategy);
  EXPECT_TRUE(settings.getCacheEnabled);
  EXPECT_EQ(settings.timeoutBase, 30U);
  EXPECT_TRUE(settings.tryResumableTransfer);
}

TEST(KovoSettingsTest, ZeroedConfigTurnsFlagsOffAndKeepsNumbers) {
  const kovo_config config{};
  const KovoSettings settings = KovoSettings::fromConfig(&config);
  EXPECT_FALSE(settings.chunkDownloads || settings.adaptiveStrategy || settings.getCacheEnabled ||
               settings.tryResumableTransfer);
  EXPECT_EQ(settings.progressInterval, 0U);
  EXPECT_EQ(settings.timeoutBase, 0U);
  EXPECT_EQ(settings.maxActiveWorkProviders, 4U);
  EXPECT_EQ(settings.workerPoolUpperLimit, 16U);
  EXPECT_EQ(settings.workerPoolLowerLimit, 2U);
  EXPECT_EQ(settings.chunkSize, 2097152U);
  EXPECT_EQ(settings.getCacheMaxSize, 536870912U);
  EXPECT_EQ(settings.adaptiveInitialThreadCount, 8U);
}

TEST(KovoSettingsTest, NumbersAreTakenUpToTheirBordersOnly) {
  kovo_config config{};
  config.workQueuePolicy = 2;
  config.maxActiveWorkProviders = 1024;
  config.workerPoolUpperLimit = 64;
  config.workerPoolLowerLimit = 64;
  config.chunkSize = 52428800;
  config.getCacheMaxSize = 4294967295;
  config.adaptiveInitialThreadCount = 64;
  config.chunkUploads = 2;  // a flag is set by 1 alone
  config.basePath = "there";
  KovoSettings settings = KovoSettings::fromConfig(&config);
  EXPECT_EQ(settings.workQueuePolicy, 0U);
  EXPECT_EQ(settings.maxActiveWorkProviders, 1024U);
  EXPECT_EQ(settings.workerPoolUpperLimit, 64U);
  EXPECT_EQ(settings.workerPoolLowerLimit, 64U);
  EXPECT_EQ(settings.chunkSize, 52428800U);
  EXPECT_EQ(settings.getCacheMaxSize, 4294967295U);
  EXPECT_EQ(settings.adaptiveInitialThreadCount, 64U);
  EXPECT_FALSE(settings.chunkUploads);
  EXPECT_EQ(settings.basePath, "there");

  config.maxActiveWorkProviders = 1025;
  config.workerPoolUpperLimit = 65;
  config.workerPoolLowerLimit = 17;
  config.chunkSize = 52428801;
  config.getCacheMaxSize = 4294967296;
  config.adaptiveInitialThreadCount = 65;
  settings = KovoSettings::fromConfig(&config);
  EXPECT_EQ(settings.maxActiveWorkProviders, 4U);
  EXPECT_EQ(settings.workerPoolUpperLimit, 16U);
  EXPECT_EQ(settings.workerPoolLowerLimit, 2U) << "above the upper limit that came out";
  EXPECT_EQ(settings.chunkSize, 2097152U);
  EXPECT_EQ(settings.getCacheMaxSize, 536870912U);
  EXPECT_EQ(settings.adaptiveInitialThreadCount, 8U);
}

}  // namespace
}  // namespace kovo
