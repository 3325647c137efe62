#include <gtest/gtest.h>
#include <kovo/kovo_ext.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "integration/chaos.h"
#include "integration/small_chunks.h"
#include "support/seed.h"

namespace kovo::test {
namespace {

using std::chrono::milliseconds;

constexpr int kAtOnce = 16;
constexpr uint32_t kPercent = 15;

/* KOVO_RANDOM_SEED repeats a run; KOVO_RANDOM_DOWNLOADS and _UPLOADS make it longer. */
class RandomFaults : public ::testing::Test {
 protected:
  struct Started {
    int index;
    TransferRecord* record;
    std::string path;
  };

  void SetUp() override { kovoSetS3Endpoint("127.0.0.1"); }
  void TearDown() override {
    kovoSetS3Endpoint(nullptr);
    std::cout << _completed << " completed, " << _failed << " failed, " << _retries
              << " requests sent again" << std::endl;
    EXPECT_GT(_completed, 0);
  }

  TransferHooks patientHooks() {
    TransferHooks hooks;
    hooks.timeoutSeconds = 1;
    const auto answers = std::make_shared<std::atomic<int>>(0);
    hooks.retry = [answers](uint32_t, uint32_t) { return ++*answers <= 40 ? 1 : 0; };
    return hooks;
  }

  /** Waits for one, and tells whether it completed; refusedIsDone: a refusal completes it too. */
  bool isComplete(TestEngine& engine, const TransferRecord& record, bool refusedIsDone = false) {
    if (!engine.wait(record, milliseconds(120000))) return false;
    const TransferEvents events = record.events();
    _retries += events.retryCalls.size();
    const bool complete = events.completions == 1 && !(refusedIsDone && events.status >= 300);
    if (events.errors != 0) {
      EXPECT_NE(events.errorCode, KOVO_ERROR_NONE);
      EXPECT_NE(events.errorText, "");
    }
    ++(complete ? _completed : _failed);
    return complete;
  }

  const uint32_t _seed = seedFrom("KOVO_RANDOM_SEED");
  std::mt19937 _random{_seed};
  int _completed = 0;
  int _failed = 0;
  size_t _retries = 0;
};

TEST_F(RandomFaults, DownloadsAreWholeOrFail) {
  const int count = static_cast<int>(numberFrom("KOVO_RANDOM_DOWNLOADS", 300));
  std::vector<uint64_t> sizes;
  for (int i = 0; i < count; ++i) {
    /* Most are of some chunks; some of a few bytes. */
    sizes.push_back(_random() % 8 == 0 ? _random() % 100 + 1 : _random() % (12 * kChunk) + 1);
  }
  const auto resourceOf = [&](size_t index) { return Resource(_seed + index, sizes.at(index)); };
  Chaos chaos(_seed, kPercent);
  FaultOrigin origin(chaos.downloads([&](const OriginRequest& request) {
    return resourceOf(static_cast<size_t>(std::stoi(request.path.substr(1))));
  }));
  for (int first = 0; first < count; first += kAtOnce) {
    TestEngine engine(first % 2 == 0 ? smallChunksUncached() : smallChunks());
    std::vector<Started> started;
    for (int i = first; i < std::min(first + kAtOnce, count); ++i) {
      const std::string url = origin.url("/" + std::to_string(i));
      const std::string path = i % 2 == 0 ? engine.file(std::to_string(i) + "._kstmp") : "";
      started.push_back({i,
                         path.empty() ? &engine.downloadToMemory(url, patientHooks())
                                      : &engine.download(url, path, patientHooks()),
                         path});
    }
    for (const Started& each : started) {
      SCOPED_TRACE("seed " + std::to_string(_seed) + ", download " + std::to_string(each.index));
      const bool complete = isComplete(engine, *each.record);
      const Resource resource = resourceOf(static_cast<size_t>(each.index));
      if (each.path.empty()) {
        if (complete) {
          EXPECT_TRUE(each.record->events().wholeBody() == resource.all());
        }
      } else if (complete) {
        EXPECT_EQ(resource.differenceTo(each.path), "");
      } else {
        EXPECT_FALSE(std::filesystem::exists(each.path));
      }
    }
  }
}

TEST_F(RandomFaults, UploadsAreStoredWholeOrFail) {
  const int count = static_cast<int>(numberFrom("KOVO_RANDOM_UPLOADS", 60));
  Chaos chaos(_seed, kPercent);
  for (int first = 0; first < count; first += kAtOnce) {
    StorageMock mock(chaos.uploads(), true);
    TestEngine engine(smallChunks());
    std::vector<Started> started;
    std::vector<Resource> contents;
    for (int i = first; i < std::min(first + kAtOnce, count); ++i) {
      TransferHooks hooks = patientHooks();
      hooks.serverType = static_cast<uint32_t>(i % 3);
      const bool inParts = hooks.serverType != KOVO_SERVER_TYPE_DEFAULT;
      contents.emplace_back(_seed + static_cast<uint32_t>(i),
                            (inParts ? 5 * 1024 * 1024 : 0) + _random() % (4 * kChunk) + 1);
      const std::string input = engine.file("input-" + std::to_string(i));
      contents.back().writeTo(input);
      const bool isSync = hooks.serverType == KOVO_SERVER_TYPE_SYNC_SERVICE;
      const std::string target = (isSync ? "/assets/" : "/bucket/") + std::to_string(i);
      started.push_back({i,
                         &engine.upload(KOVO_HTTP_PUT, mock.url(target), input, std::move(hooks),
                                        KOVO_CHUNKING_ALWAYS),
                         target});
    }
    for (size_t k = 0; k < started.size(); ++k) {
      SCOPED_TRACE("seed " + std::to_string(_seed) + ", upload " +
                   std::to_string(started[k].index));
      const bool isPlain = started[k].record->hooks().serverType == KOVO_SERVER_TYPE_DEFAULT;
      if (!isComplete(engine, *started[k].record, isPlain)) continue;
      const auto object = mock.object(started[k].path);
      EXPECT_TRUE(object && object->size() == contents[k].size() &&
                  contents[k].matches(0, *object));
    }
    EXPECT_TRUE(mock.complaints().empty());
  }
}

}  // namespace
}  // namespace kovo::test
