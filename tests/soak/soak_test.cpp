#include <gtest/gtest.h>
#include <kovo/kovo_ext.h>
#include <malloc.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <memory>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "integration/chaos.h"
#include "integration/small_chunks.h"
#include "support/process_figures.h"
#include "support/seed.h"
#include "support/wait_until.h"

#if defined(__SANITIZE_ADDRESS__)
/* Freed memory is kept for a while to catch its use; that must not look like a leak. */
extern "C" const char* __asan_default_options();
extern "C" const char* __asan_default_options() {
  return "quarantine_size_mb=8";
}
#endif

namespace kovo::test {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr int kRoundsPerEngine = 3;
constexpr int kTransfersPerRound = 20;
constexpr uint32_t kPercent = 8;
constexpr uint64_t kMiB = 1024 * 1024;
/* What allocators and sanitizers take beyond what the program holds. */
constexpr uint64_t kResidentSlack = 32 * kMiB;
/* Logs, libraries and the test's own samples. */
constexpr uint64_t kHeapSlack = 256 * 1024;

enum class Traffic { kFile, kMemory, kRequest, kPlain, kS3, kSync };

/** Servers, an engine and what runs on it, from creation to destruction. */
class Life {
 public:
  explicit Life(std::mt19937& random)
      : _random(random), _seed(static_cast<uint32_t>(random())), _chaos(_seed, kPercent) {
    _input = Resource(_seed, 5 * kMiB + 4321);
    _input.writeTo(_engine.file("input"));
    _small.writeTo(_engine.file("small"));
  }

  void round() {
    std::vector<Run> runs;
    for (int i = 0; i < kTransfersPerRound; ++i) runs.push_back(start());
    for (Run& run : runs) disturb(*run.record);
    for (const Run& run : runs) expectSound(run);
  }
  size_t transfers() const { return _count; }
  size_t completed() const { return _completed; }

 private:
  struct Run {
    Traffic traffic;
    TransferRecord* record;
    std::string place; /* path or target */
    uint64_t size;
  };

  Run start() {
    const auto traffic = static_cast<Traffic>(_random() % 6);
    const std::string name = std::to_string(_count++);
    const uint64_t size = _random() % (12 * kChunk) + 1;
    const std::string url = _origin.url("/" + std::to_string(size));
    TransferHooks hooks;
    hooks.timeoutSeconds = 1;
    const auto answers = std::make_shared<std::atomic<int>>(0);
    hooks.retry = [answers](uint32_t, uint32_t) { return ++*answers <= 10 ? 1 : 0; };
    const std::string path = _engine.file(name + "._kstmp");
    switch (traffic) {
      case Traffic::kFile:
        return {traffic, &_engine.download(url, path, hooks), path, size};
      case Traffic::kMemory:
        return {traffic, &_engine.downloadToMemory(url, hooks), "", size};
      case Traffic::kRequest:
        hooks.dropsBody = true;
        return {traffic, &_engine.sendRequest(KOVO_HTTP_GET, url, hooks), "", size};
      default:
        break;
    }
    hooks.serverType = static_cast<uint32_t>(traffic) - static_cast<uint32_t>(Traffic::kPlain);
    const std::string target = (traffic == Traffic::kSync ? "/assets/" : "/bucket/") + name;
    const bool isPlain = traffic == Traffic::kPlain;
    return {traffic,
            &_engine.upload(KOVO_HTTP_PUT, _mock.url(target),
                            _engine.file(isPlain ? "small" : "input"), hooks, KOVO_CHUNKING_ALWAYS),
            target, isPlain ? _small.size() : _input.size()};
  }

  void disturb(const TransferRecord& record) {
    switch (_random() % 8) {
      case 0:
        _engine.cancel(record);
        break;
      case 1:
      case 2:
        if (_engine.pause(record) == KOVO_ERROR_NONE && _engine.waitForPause(record)) {
          _engine.resume(record);
        }
        break;
      default:
        break;
    }
  }

  void expectSound(const Run& run) {
    if (!_engine.wait(*run.record, milliseconds(120000))) return;
    const TransferEvents events = run.record->events();
    if (events.completions == 0) return;
    ++_completed;
    const Resource resource(run.size, run.size);
    switch (run.traffic) {
      case Traffic::kFile:
        EXPECT_EQ(resource.differenceTo(run.place), "");
        break;
      case Traffic::kMemory:
        EXPECT_TRUE(events.wholeBody() == resource.all());
        break;
      case Traffic::kS3:
      case Traffic::kSync: {
        const auto object = _mock.object(run.place);
        EXPECT_TRUE(object && object->size() == run.size && _input.matches(0, *object));
        break;
      }
      default:
        break;
    }
  }

  std::mt19937& _random;
  const uint32_t _seed;
  Chaos _chaos;
  Resource _input{0, 0};
  Resource _small{44, 100'000};
  size_t _count = 0;
  size_t _completed = 0;
  /* Served by its size, which is its seed too. */
  FaultOrigin _origin{_chaos.downloads([](const OriginRequest& request) {
    const auto size = static_cast<uint64_t>(std::stoll(request.path.substr(1)));
    return Resource(size, size);
  })};
  StorageMock _mock{_chaos.uploads(), true};
  TestEngine _engine{smallChunks()};
};

using Figure = uint64_t ProcessFigures::*;

/** Of the second quarter and of the last. */
std::pair<uint64_t, uint64_t> mediansOf(const std::vector<ProcessFigures>& samples, Figure figure) {
  const size_t quarter = samples.size() / 4;
  const auto median = [&](size_t first) {
    std::vector<uint64_t> values;
    for (size_t i = first; i < first + quarter; ++i) values.push_back(samples[i].*figure);
    std::nth_element(values.begin(), values.begin() + static_cast<std::ptrdiff_t>(quarter / 2),
                     values.end());
    return values[quarter / 2];
  };
  return {median(quarter), median(samples.size() - quarter)};
}

TEST(Soak, NothingGrows) {
  kovoSetS3Endpoint("127.0.0.1");
  const auto seconds = std::chrono::seconds(numberFrom("KOVO_SOAK_SECONDS", 20));
  const uint32_t seed = seedFrom("KOVO_SOAK_SEED");
  SCOPED_TRACE("KOVO_SOAK_SEED=" + std::to_string(seed));
  std::mt19937 random(seed);
  size_t transfers = 0;
  size_t completed = 0;
  std::vector<ProcessFigures> samples;
  const auto end = steady_clock::now() + seconds;
  while ((steady_clock::now() < end || samples.size() < 4) && !HasFailure()) {
    {
      Life life(random);
      for (int i = 0; i < kRoundsPerEngine; ++i) life.round();
      transfers += life.transfers();
      completed += life.completed();
    }
    ::malloc_trim(0);
    samples.push_back(ProcessFigures::now());
    /* What the first engine brought and stays, the next ones must not bring again. */
    waitUntil(
        [&] {
          samples.back() = ProcessFigures::now();
          return samples.back().descriptors <= samples[0].descriptors &&
                 samples.back().threads <= samples[0].threads;
        },
        milliseconds(10000));
    EXPECT_LE(samples.back().descriptors, samples[0].descriptors);
    EXPECT_LE(samples.back().threads, samples[0].threads);
  }
  kovoSetS3Endpoint(nullptr);
  const auto [early, late] = mediansOf(samples, &ProcessFigures::residentBytes);
  EXPECT_LE(late, early + early / 10 + kResidentSlack);
  const auto [heapEarly, heapLate] = mediansOf(samples, &ProcessFigures::heapBytes);
  EXPECT_LE(heapLate, heapEarly + kHeapSlack);
  EXPECT_GT(completed, transfers / 3);
  std::cout << samples.size() << " engines, " << transfers << " transfers, " << completed
            << " completed; " << samples.back().threads << " threads, "
            << samples.back().descriptors << " descriptors, resident " << early / kMiB
            << " MiB early, " << late / kMiB << " MiB late; allocated " << heapEarly / 1024
            << " KiB early, " << heapLate / 1024 << " KiB late; resident over time";
  for (size_t i = 0; i < 12; ++i) {
    std::cout << ' ' << samples[i * (samples.size() - 1) / 11].residentBytes / kMiB;
  }
  std::cout << std::endl;
}

}  // namespace
}  // namespace kovo::test
