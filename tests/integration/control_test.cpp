#include <gtest/gtest.h>

#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <future>
#include <ostream>
#include <thread>
#include <utility>

#include "integration/small_chunks.h"
#include "support/gate.h"
#include "support/serve_resource.h"
#include "support/wait_until.h"

namespace kovo::test {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr milliseconds kPromptly{1000};
const Resource kResource(21, 12 * kChunk + 9);

/** Where a transfer is when something is done to it: what its requests wait for. */
enum class Stage { kQueued, kBeforeHeaders, kInFirstBody, kInChunks, kInLastChunk };

void PrintTo(Stage stage, std::ostream* out) {
  static constexpr const char* kNames[] = {"Queued", "BeforeHeaders", "InFirstBody", "InChunks",
                                           "InLastChunk"};
  *out << kNames[static_cast<int>(stage)];
}

/** An origin whose transfer stands still at a stage until release(), and an engine at work on it.
 */
class StalledTransfer {
 public:
  explicit StalledTransfer(Stage stage, TransferHooks hooks = {})
      : _stage(stage),
        _origin([this](const OriginRequest& request, Responder& to) { answer(request, to); }),
        _engine(options(stage)) {
    if (stage == Stage::kQueued) {
      /* Fills the engine's only place. */
      _engine.download(_origin.url("/blocker"), _engine.file("blocker"));
      waitForRequests(1);
    }
    _record = &_engine.download(_origin.url("/f"), path(), std::move(hooks), KOVO_CHUNKING_ALWAYS);
    if (stage != Stage::kQueued) {
      EXPECT_TRUE(waitUntil([this] { return _stalled > 0; }, milliseconds(10000)));
    }
  }
  ~StalledTransfer() { _origin.release(); }

  TestEngine& engine() { return _engine; }
  FaultOrigin& origin() { return _origin; }
  TransferRecord& record() { return *_record; }
  std::string path() const { return _engine.file("out"); }

  /** Waits until the pause has drained; false when the running requests were the last ones. */
  bool pausesOrCompletes() {
    const bool either =
        _record->waitFor([](const TransferEvents& e) { return e.pauses != 0 || e.finals() != 0; },
                         milliseconds(10000));
    EXPECT_TRUE(either) << "a pause does not drain";
    const TransferEvents events = _record->events();
    if (events.pauses != 0) return true;
    EXPECT_TRUE(_stage == Stage::kInChunks || _stage == Stage::kInLastChunk);
    expectWhole();
    return false;
  }

  void expectWhole() {
    if (!_engine.wait(*_record)) return;
    EXPECT_EQ(_record->events().completions, 1u) << _record->events().errorText;
    EXPECT_EQ(kResource.differenceTo(path()), "");
  }

  void expectCancelledWithin(milliseconds limit, steady_clock::time_point since) {
    if (!_engine.wait(*_record)) return;
    EXPECT_LT(std::chrono::duration_cast<milliseconds>(steady_clock::now() - since), limit);
    EXPECT_EQ(_record->events().cancellations, 1u);
  }

 private:
  static TestEngineOptions options(Stage stage) {
    TestEngineOptions options = smallChunksUncached();
    if (stage == Stage::kQueued) {
      options.hardware = 2;
      options.config.maxActiveWorkProviders = 1;
    }
    return options;
  }

  void waitForRequests(size_t count) {
    EXPECT_TRUE(
        waitUntil([this, count] { return _origin.requestCount() >= count; }, milliseconds(10000)));
  }

  bool stallsAt(const OriginRequest& request) const {
    const uint64_t start = request.rangeStart();
    switch (_stage) {
      case Stage::kQueued:
        return request.path == "/blocker";
      case Stage::kBeforeHeaders:
      case Stage::kInFirstBody:
        return start == 0;
      case Stage::kInChunks:
        return start == 2 * kChunk;
      case Stage::kInLastChunk:
        return start == 12 * kChunk;
    }
    return false;
  }

  void answer(const OriginRequest& request, Responder& to) {
    if (!stallsAt(request)) {
      serveResource(kResource)(request, to);
      return;
    }
    const uint64_t start = request.rangeStart();
    const uint64_t length = std::min(kChunk, kResource.size() - start);
    const uint64_t early = _stage == Stage::kInFirstBody || _stage == Stage::kInChunks ? 5 : 0;
    const Headers headers{{"ETag", "\"v1\""},
                          {"Content-Length", std::to_string(length)},
                          {"Content-Range", "bytes " + std::to_string(start) + '-' +
                                                std::to_string(start + length - 1) + '/' +
                                                std::to_string(kResource.size())}};
    if (early != 0) {
      to.head(206, headers);
      to.range(kResource, start, early);
    }
    ++_stalled;
    to.stall();
    if (early == 0) to.head(206, headers);
    to.range(kResource, start + early, length - early);
  }

  const Stage _stage;
  std::atomic<int> _stalled{0};
  FaultOrigin _origin;
  TestEngine _engine;
  TransferRecord* _record = nullptr;
};

class AtEveryStage : public ::testing::TestWithParam<Stage> {};

TEST_P(AtEveryStage, CancelCallsBackPromptlyAndOnce) {
  StalledTransfer transfer(GetParam());
  const auto before = steady_clock::now();
  EXPECT_EQ(transfer.engine().cancel(transfer.record()), KOVO_ERROR_NONE);
  const kovo_error again = transfer.engine().cancel(transfer.record());
  EXPECT_TRUE(again == KOVO_ERROR_CANCELLED || again == KOVO_ERROR_INVALID_PARAMETERS) << again;
  transfer.expectCancelledWithin(kPromptly, before);
  EXPECT_EQ(transfer.engine().cancel(transfer.record()), KOVO_ERROR_INVALID_PARAMETERS);
  EXPECT_EQ(transfer.engine().pause(transfer.record()), KOVO_ERROR_INVALID_PARAMETERS);
  EXPECT_EQ(transfer.engine().resume(transfer.record()), KOVO_ERROR_RESUME_FAILED);
}

TEST_P(AtEveryStage, DestroyReturnsPromptlyWithOneError) {
  StalledTransfer transfer(GetParam());
  EXPECT_LT(transfer.engine().destroy(), kPromptly);
  const TransferEvents events = transfer.record().events();
  EXPECT_EQ(events.errors, 1u);
  EXPECT_EQ(events.errorCode, KOVO_ERROR_CANCELLED) << events.errorText;
}

TEST_P(AtEveryStage, PauseDrainsAndResumeCompletes) {
  StalledTransfer transfer(GetParam());
  EXPECT_EQ(transfer.engine().pause(transfer.record()), KOVO_ERROR_NONE);
  transfer.origin().release();
  if (transfer.pausesOrCompletes()) {
    EXPECT_EQ(transfer.engine().resume(transfer.record()), KOVO_ERROR_NONE);
  }
  transfer.expectWhole();
  EXPECT_LE(transfer.record().events().pauses, 1u);
}

TEST_P(AtEveryStage, ResumeWhileThePauseDrainsLosesNothing) {
  StalledTransfer transfer(GetParam());
  EXPECT_EQ(transfer.engine().pause(transfer.record()), KOVO_ERROR_NONE);
  EXPECT_EQ(transfer.engine().resume(transfer.record()), KOVO_ERROR_NONE);
  transfer.origin().release();
  transfer.expectWhole();
}

TEST_P(AtEveryStage, CancelOfADrainingOrDrainedPauseCallsBack) {
  for (const bool drained : {false, true}) {
    StalledTransfer transfer(GetParam());
    EXPECT_EQ(transfer.engine().pause(transfer.record()), KOVO_ERROR_NONE);
    if (drained) {
      transfer.origin().release();
      if (!transfer.pausesOrCompletes()) continue;
    }
    const auto before = steady_clock::now();
    EXPECT_EQ(transfer.engine().cancel(transfer.record()), KOVO_ERROR_NONE);
    transfer.expectCancelledWithin(kPromptly, before);
    EXPECT_EQ(transfer.engine().resume(transfer.record()), KOVO_ERROR_RESUME_FAILED);
  }
}

TEST_P(AtEveryStage, DestroyWhilePausingOrPausedIsPrompt) {
  for (const bool drained : {false, true}) {
    StalledTransfer transfer(GetParam());
    EXPECT_EQ(transfer.engine().pause(transfer.record()), KOVO_ERROR_NONE);
    if (drained) {
      transfer.origin().release();
      if (!transfer.pausesOrCompletes()) continue;
    }
    EXPECT_LT(transfer.engine().destroy(), kPromptly);
    EXPECT_EQ(transfer.record().events().completions, 0u);
  }
}

TEST_P(AtEveryStage, PauseAndResumeManyTimes) {
  StalledTransfer transfer(GetParam());
  transfer.origin().release();
  for (int round = 0; round < 20; ++round) {
    if (transfer.engine().pause(transfer.record()) != KOVO_ERROR_NONE) break;
    if (round % 2 == 0 && !transfer.engine().waitForPause(transfer.record(), 1)) break;
    const kovo_error result = transfer.engine().resume(transfer.record());
    /* The last request of all may end the transfer before it can pause. */
    if (result != KOVO_ERROR_NONE) {
      ASSERT_TRUE(transfer.engine().wait(transfer.record()));
    }
  }
  transfer.expectWhole();
}

INSTANTIATE_TEST_SUITE_P(All, AtEveryStage,
                         ::testing::Values(Stage::kQueued, Stage::kBeforeHeaders,
                                           Stage::kInFirstBody, Stage::kInChunks,
                                           Stage::kInLastChunk),
                         [](const auto& test) { return ::testing::PrintToString(test.param); });

/* Servers that hang where no byte of HTTP has gone over the line. */
TEST(DeadServers, CannotHoldUpCancelOrDestroy) {
  /* A full backlog: connecting hangs. */
  const UniqueFd listener = listenOnLoopback();
  ASSERT_EQ(::listen(listener.get(), 0), 0);
  std::vector<UniqueFd> filling;
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(localPort(listener));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  for (int i = 0; i < 4; ++i) {
    filling.emplace_back(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    ::connect(filling.back().get(), reinterpret_cast<const sockaddr*>(&address), sizeof address);
  }
  /* Accepted by the kernel and never answered: a TLS handshake hangs. */
  const UniqueFd silent = listenOnLoopback();

  const std::string urls[] = {"http://127.0.0.1:" + std::to_string(localPort(listener)) + "/",
                              "https://127.0.0.1:" + std::to_string(localPort(silent)) + "/",
                              "http://127.0.0.1:" + std::to_string(localPort(silent)) + "/"};
  for (const std::string& url : urls) {
    SCOPED_TRACE(url);
    TestEngine engine(smallChunksUncached());
    std::vector<TransferRecord*> records;
    for (int i = 0; i < 3; ++i) {
      records.push_back(&engine.download(url, engine.file("out" + std::to_string(i))));
      records.push_back(&engine.sendRequest(KOVO_HTTP_POST, url));
    }
    std::this_thread::sleep_for(milliseconds(50)); /* let the workers run into it */
    const auto before = steady_clock::now();
    EXPECT_EQ(engine.cancel(*records[0]), KOVO_ERROR_NONE);
    EXPECT_EQ(engine.cancel(*records[1]), KOVO_ERROR_NONE);
    for (int i = 0; i < 2; ++i) {
      ASSERT_TRUE(engine.wait(*records[static_cast<size_t>(i)]));
      EXPECT_EQ(records[static_cast<size_t>(i)]->events().cancellations, 1u);
    }
    EXPECT_LT(steady_clock::now() - before, kPromptly);
    EXPECT_LT(engine.destroy(), kPromptly);
    for (size_t i = 2; i < records.size(); ++i) {
      EXPECT_EQ(records[i]->events().errorCode, KOVO_ERROR_CANCELLED);
    }
  }
}

TEST(Throttle, SleepingTransfersCanBeCancelledAndDestroyed) {
  const Resource resource(22, 64 * kChunk);
  FaultOrigin origin(serveResource(resource));
  TestEngine engine(smallChunksUncached());
  ASSERT_EQ(kovoSetTargetDataRates(engine.instance(), 1, 1), KOVO_ERROR_NONE);
  const TransferRecord& first = engine.download(origin.url(), engine.file("a"));
  engine.download(origin.url(), engine.file("b"));
  EXPECT_TRUE(waitUntil([&] { return origin.bytesSent() > 0; }, milliseconds(5000)));
  const auto before = steady_clock::now();
  EXPECT_EQ(engine.cancel(first), KOVO_ERROR_NONE);
  ASSERT_TRUE(engine.wait(first));
  EXPECT_LT(steady_clock::now() - before, kPromptly);
  EXPECT_LT(engine.destroy(), kPromptly);
}

/* A PUT whose answer has begun may have had its effect: it can no longer be cancelled. */
TEST(SentRequest, IsNotCancellableOnceAnswered) {
  Gate gate;
  std::atomic<bool> answered{false};
  FaultOrigin origin([&](const OriginRequest&, Responder& to) {
    to.head(200, {{"Content-Length", "2"}});
    answered = true;
    to.stallUntil(gate);
    to.raw("ok");
  });
  TestEngine engine;
  TransferHooks hooks;
  hooks.requestBody = "payload";
  const TransferRecord& record = engine.sendRequest(KOVO_HTTP_PUT, origin.url(), hooks);
  ASSERT_TRUE(record.waitFor([](const TransferEvents& e) { return e.statusLines == 1; },
                             milliseconds(10000)));
  EXPECT_EQ(engine.cancel(record), KOVO_ERROR_NOT_CANCELLABLE);
  gate.open();
  ASSERT_TRUE(engine.wait(record));
  EXPECT_EQ(record.events().completions, 1u);
  EXPECT_EQ(record.events().wholeBody(), "ok");
}

/** Calls every function of the interface that a client might call from a callback. */
void callEverything(TestEngine& engine, TransferRecord& record, const std::string& url) {
  kovo_instance instance = engine.instance();
  EXPECT_EQ(kovoDestroy(&instance), KOVO_ERROR_UNKNOWN);
  EXPECT_EQ(instance, engine.instance());
  kovoClearCache(instance);
  EXPECT_EQ(kovoSetTargetDataRates(instance, 0, 0), KOVO_ERROR_NONE);
  EXPECT_EQ(kovoSetWorkerPoolUpperLimit(instance, 16), KOVO_ERROR_NONE);
  EXPECT_EQ(kovoSetSystemProxyCredentials(instance, "", ""), KOVO_ERROR_INVALID_PARAMETERS);
  kovoSetMultipartUploadThreshold(instance, 1);
  engine.cancel(record);
  kovo_async_token token = NOTHING_ASYNC_TOKEN;
  EXPECT_EQ(kovoResume(instance, 4'000'000'000u, nullptr, &token), KOVO_ERROR_RESUME_FAILED);
  EXPECT_EQ(kovoPause(instance, 4'000'000'000u), KOVO_ERROR_INVALID_PARAMETERS);
  engine.downloadToMemory(url);
}

TEST(InsideCallbacks, EveryFunctionMayBeCalled) {
  FaultOrigin origin(serveResource(kResource));
  enum { kStatusLine, kHeaders, kBody, kProgress, kFinal, kCount };
  for (int where = 0; where < kCount; ++where) {
    for (const bool toFile : {true, false}) {
      SCOPED_TRACE(::testing::Message() << "callback " << where << " file " << toFile);
      std::atomic<TransferRecord*> record{nullptr};
      std::atomic<int> calls{0};
      TestEngineOptions options = smallChunks();
      options.config.progressInterval = 1;
      TestEngine engine(options);
      const auto hook = [&] {
        waitUntil([&] { return record.load() != nullptr; }, milliseconds(5000));
        if (calls++ == 0) callEverything(engine, *record, origin.url());
      };
      TransferHooks hooks;
      if (where == kStatusLine) hooks.onStatusLine = hook;
      if (where == kHeaders) hooks.onHeaders = hook;
      if (where == kBody) hooks.onBody = [&](uint64_t, std::string_view) { hook(); };
      if (where == kProgress) hooks.onProgress = hook;
      if (where == kFinal) hooks.onFinal = hook;
      record = toFile ? &engine.download(origin.url(), engine.file("out"), hooks)
                      : &engine.downloadToMemory(origin.url(), hooks);
      ASSERT_TRUE(engine.wait(*record));
      /* Body callbacks belong to memory, progress to files. */
      if (where != kBody && where != kProgress) {
        EXPECT_GT(calls, 0);
      }
      EXPECT_LT(engine.destroy(), milliseconds(5000));
    }
  }
}

Gate* lengthAsked = nullptr;
const Gate* lengthMayBeTold = nullptr;

/* A callback holds up its own request and nothing else. */
TEST(InsideCallbacks, TheBodysLengthMayWaitForAnotherTransfer) {
  Gate asked;
  Gate mayBeTold;
  lengthAsked = &asked;
  lengthMayBeTold = &mayBeTold;
  FaultOrigin origin(serveResource(kResource));
  TestEngine engine;
  kovoRegisterRequestBodyCallback(
      engine.instance(),
      [](kovo_instance, uint64_t, uint8_t*, uint64_t* bytesRead, uint64_t, void*) {
        *bytesRead = 0;
      },
      [](kovo_instance, uint64_t* length, void*) {
        *length = 0;
        lengthAsked->open();
        lengthMayBeTold->waitFor(milliseconds(20000));
      });
  TransferRecord& waiting = engine.sendRequest(KOVO_HTTP_POST, origin.url("/waiting"));
  ASSERT_TRUE(asked.waitFor(milliseconds(10000)));
  TransferRecord& other = engine.downloadToMemory(origin.url("/other"));
  EXPECT_TRUE(engine.wait(other, milliseconds(10000)));
  EXPECT_FALSE(waiting.events().completions != 0);
  mayBeTold.open();
  EXPECT_TRUE(engine.wait(waiting));
}

TEST(InsideCallbacks, PausedMayResumeAndRetryMayCancel) {
  std::atomic<bool> failed{false};
  FaultOrigin origin([&](const OriginRequest& request, Responder& to) {
    if (request.path == "/failing" && request.rangeStart() == kChunk) {
      failed = true;
      to.respond(500, {}, "no");
    } else {
      serveResource(kResource)(request, to);
    }
  });
  std::atomic<TransferRecord*> record{nullptr};
  std::atomic<TransferRecord*> second{nullptr};
  TestEngine engine(smallChunksUncached());
  TransferHooks hooks;
  hooks.onStatusLine = [&] {
    waitUntil([&] { return record.load() != nullptr; }, milliseconds(5000));
    EXPECT_EQ(engine.pause(*record), KOVO_ERROR_NONE);
  };
  hooks.onPaused = [&] { EXPECT_EQ(engine.resume(*record), KOVO_ERROR_NONE); };
  record = &engine.download(origin.url(), engine.file("out"), hooks, KOVO_CHUNKING_ALWAYS);
  ASSERT_TRUE(engine.wait(*record));
  EXPECT_EQ(record.load()->events().completions, 1u) << record.load()->events().errorText;
  EXPECT_EQ(record.load()->events().pauses, 1u);
  EXPECT_EQ(kResource.differenceTo(engine.file("out")), "");

  TransferHooks cancelling;
  cancelling.retry = [&](uint32_t, uint32_t) {
    waitUntil([&] { return second.load() != nullptr; }, milliseconds(5000));
    EXPECT_EQ(engine.cancel(*second), KOVO_ERROR_NONE);
    return 1;
  };
  second = &engine.download(origin.url("/failing"), engine.file("out2"), cancelling,
                            KOVO_CHUNKING_ALWAYS);
  ASSERT_TRUE(engine.wait(*second));
  EXPECT_EQ(second.load()->events().cancellations, 1u);
}

TEST(Destroy, EndsQueuedAndRunningTransfersWithOneErrorEach) {
  FaultOrigin origin([](const OriginRequest& request, Responder& to) {
    if (request.index % 2 == 0) to.stall();
    serveResource(kResource)(request, to);
  });
  for (int round = 0; round < 5; ++round) {
    TestEngine engine(smallChunksUncached());
    std::vector<TransferRecord*> records;
    for (int i = 0; i < 40; ++i) {
      const std::string name = std::to_string(i);
      records.push_back(i % 3 == 0   ? &engine.downloadToMemory(origin.url())
                        : i % 3 == 1 ? &engine.download(origin.url(), engine.file(name))
                                     : &engine.sendRequest(KOVO_HTTP_GET, origin.url()));
    }
    std::this_thread::sleep_for(milliseconds(round * 5));
    EXPECT_LT(engine.destroy(), kPromptly);
    for (const TransferRecord* record : records) {
      const TransferEvents events = record->events();
      EXPECT_EQ(events.finals(), 1u);
      if (events.errors != 0) {
        EXPECT_EQ(events.errorCode, KOVO_ERROR_CANCELLED) << events.errorText;
      }
    }
  }
}

TEST(Destroy, ManyEnginesInARow) {
  FaultOrigin origin(serveResource(kResource));
  for (int round = 0; round < 30; ++round) {
    TestEngine engine(smallChunks());
    if (round % 2 == 0) continue;
    engine.download(origin.url(), engine.file("out"));
    engine.downloadToMemory(origin.url());
    if (round % 4 == 1) std::this_thread::sleep_for(milliseconds(round % 7));
  }
}

/* Client threads that start, pause, resume and cancel at random, on transfers of every kind. */
void stir(TestEngine& engine, FaultOrigin& origin, int transfers, unsigned seed) {
  std::vector<TransferRecord*> records;
  const auto random = [&seed] { return seed = seed * 1664525u + 1013904223u, seed >> 16; };
  for (int i = 0; i < transfers; ++i) {
    const std::string name = std::to_string(seed) + '-' + std::to_string(i);
    TransferHooks hooks;
    hooks.dropsBody = true;
    hooks.retry = [](uint32_t, uint32_t) { return 1; };
    switch (random() % 4) {
      case 0:
        records.push_back(&engine.downloadToMemory(origin.url(), hooks));
        break;
      case 1:
        records.push_back(&engine.sendRequest(KOVO_HTTP_GET, origin.url(), hooks));
        break;
      case 2:
        records.push_back(&engine.download(origin.url(), engine.file(name), hooks,
                                           KOVO_CHUNKING_SERIAL, random() % 3));
        break;
      default:
        records.push_back(&engine.download(origin.url(), engine.file(name), hooks,
                                           KOVO_CHUNKING_ALWAYS, random() % 3));
    }
    if (random() % 3 == 0) {
      TransferRecord& some = *records[random() % records.size()];
      switch (random() % 3) {
        case 0:
          engine.cancel(some);
          break;
        case 1:
          engine.pause(some);
          engine.resume(some);
          break;
        default:
          engine.pause(some);
          std::this_thread::yield();
          engine.resume(some);
      }
    }
  }
  for (const TransferRecord* record : records) {
    /* Whoever was caught by a pause between two of our calls is resumed here. */
    if (!engine.wait(*record, milliseconds(60000))) {
      ADD_FAILURE() << "pauses " << record->events().pauses;
    }
  }
}

TEST(Crowd, TwoHundredTransfersOnOneEngine) {
  const Resource resource(23, 3 * kChunk + 1);
  FaultOrigin origin(serveResource(resource));
  TestEngine engine(smallChunksUncached());
  std::vector<TransferRecord*> records;
  for (int i = 0; i < 200; ++i) {
    records.push_back(
        &engine.download(origin.url("/" + std::to_string(i)), engine.file(std::to_string(i)), {},
                         static_cast<kovo_chunking_mode>(i % 3), static_cast<uint32_t>(i % 5)));
  }
  for (int i = 0; i < 200; ++i) {
    ASSERT_TRUE(engine.wait(*records[static_cast<size_t>(i)], milliseconds(60000)));
    EXPECT_EQ(records[static_cast<size_t>(i)]->events().completions, 1u);
    EXPECT_EQ(resource.differenceTo(engine.file(std::to_string(i))), "");
  }
}

TEST(Crowd, ThreadsThatStartPauseResumeAndCancel) {
  const Resource resource(24, 3 * kChunk + 1);
  FaultOrigin origin([good = serveResource(resource)](const OriginRequest& request, Responder& to) {
    if (request.index % 17 == 16) to.reset();
    good(request, to);
  });
  TestEngine engine(smallChunksUncached());
  std::vector<std::thread> clients;
  for (unsigned i = 0; i < 4; ++i) {
    clients.emplace_back([&, i] { stir(engine, origin, 50, i + 1); });
  }
  for (std::thread& client : clients) client.join();
}

TEST(Crowd, FourEnginesAtOnce) {
  const Resource resource(25, 5 * kChunk + 1);
  FaultOrigin origin(serveResource(resource));
  std::vector<std::unique_ptr<TestEngine>> engines;
  for (int i = 0; i < 4; ++i) engines.push_back(std::make_unique<TestEngine>(smallChunks()));
  std::vector<std::thread> clients;
  for (const auto& engine : engines) {
    clients.emplace_back([&origin, &resource, &engine = *engine] {
      std::vector<TransferRecord*> records;
      for (int i = 0; i < 25; ++i) {
        records.push_back(&engine.download(origin.url(), engine.file(std::to_string(i))));
      }
      for (int i = 0; i < 25; ++i) {
        if (!engine.wait(*records[static_cast<size_t>(i)], milliseconds(60000))) return;
        EXPECT_EQ(records[static_cast<size_t>(i)]->events().completions, 1u);
        EXPECT_EQ(resource.differenceTo(engine.file(std::to_string(i))), "");
      }
      engine.destroy();
    });
  }
  for (std::thread& client : clients) client.join();
}

/* A host that pauses and resumes twice while it is being told of the first pause. */
TEST(Control, AResumeTakesBackAReportThatHasNotBeenMade) {
  const Resource resource(23, 300 * kChunk);
  std::atomic<int> inFlight{0};
  FaultOrigin origin(
      [&, serve = serveResource(resource)](const OriginRequest& request, Responder& to) {
        ++inFlight;
        std::this_thread::sleep_for(milliseconds(5));
        serve(request, to);
        --inFlight;
      });
  TestEngineOptions options = smallChunksUncached();
  options.hardware = 3;
  TestEngine engine(options);
  Gate mayGoOn;
  TransferHooks hooks;
  hooks.onPaused = [&] { mayGoOn.waitFor(milliseconds(20000)); };
  TransferRecord& record = engine.download(origin.url(), engine.file("out"), hooks);
  for (int i = 0; i < 2; ++i) {
    const size_t before = origin.requestCount();
    EXPECT_TRUE(
        waitUntil([&] { return origin.requestCount() >= before + 4; }, milliseconds(10000)));
    EXPECT_EQ(engine.pause(record), KOVO_ERROR_NONE);
    EXPECT_TRUE(waitUntil([&] { return inFlight == 0; }, milliseconds(10000)));
    /* Nothing tells that the second pause has drained; come too soon, the test sees less. */
    std::this_thread::sleep_for(milliseconds(100));
    EXPECT_EQ(engine.resume(record), KOVO_ERROR_NONE);
  }
  mayGoOn.open();
  ASSERT_TRUE(engine.wait(record));
  EXPECT_EQ(record.events().pauses, 1u);
  EXPECT_EQ(resource.differenceTo(engine.file("out")), "");
}

/* It may wait for locks of the host's that other threads hold while they call the library. */
TEST(Control, HoldsNoLockWhileTheLoggingCallbackRuns) {
  struct Log {
    kovo_instance instance = nullptr;
    std::atomic<uint32_t> calls{0};
    std::atomic<uint32_t> blocked{0};
    std::atomic<uint32_t> destroyed{0};
  } log;
  StalledTransfer transfer(Stage::kQueued);
  log.instance = transfer.engine().instance();
  static thread_local bool isInside = false;
  kovoRegisterLoggingCallback(
      [](uint32_t, const char*, const char*, const char*, uint32_t, void* context) {
        Log& to = *static_cast<Log*>(context);
        if (std::exchange(isInside, true)) return;
        ++to.calls;
        kovo_instance instance = to.instance;
        if (kovoDestroy(&instance) == KOVO_ERROR_NONE) ++to.destroyed;
        std::packaged_task<void()> call([instance] {
          isInside = true;
          kovoCancel(instance, 1'000'000);
          kovo_async_token token = NOTHING_ASYNC_TOKEN;
          kovoResume(instance, 1'000'000, nullptr, &token);
        });
        const auto done = call.get_future();
        std::thread other(std::move(call));
        if (done.wait_for(std::chrono::seconds(10)) != std::future_status::ready) ++to.blocked;
        other.join();
        isInside = false;
      },
      &log);
  kovoSetLogLevel(KOVO_LOG_INFO);
  EXPECT_EQ(transfer.engine().pause(transfer.record()), KOVO_ERROR_NONE);
  EXPECT_TRUE(transfer.engine().waitForPause(transfer.record()));
  EXPECT_EQ(transfer.engine().resume(transfer.record()), KOVO_ERROR_NONE);
  kovoSetLogLevel(KOVO_LOG_WARN);
  kovoRegisterLoggingCallback(nullptr, nullptr);
  EXPECT_GT(log.calls, 0u);
  EXPECT_EQ(log.blocked, 0u);
  EXPECT_EQ(log.destroyed, 0u) << "an engine cannot go under its caller";
}

/* What this transfer has not made it does not take away. */
TEST(Control, ADeviceOrAFileNotYetBegunIsLeftAlone) {
  const std::string device = "/dev/null";
  FaultOrigin origin(serveResource(kResource));
  {
    TestEngine engine(smallChunksUncached());
    const std::string path = engine.file("null");
    std::filesystem::create_symlink(device, path);
    const std::string pipe = engine.file("pipe");
    ASSERT_EQ(::mkfifo(pipe.c_str(), 0600), 0);
    const TransferRecord& discarded = engine.download(origin.url(), path);
    const TransferRecord& refused = engine.download(origin.url(), pipe);
    ASSERT_TRUE(engine.wait(discarded));
    ASSERT_TRUE(engine.wait(refused));
    EXPECT_EQ(discarded.events().completions, 1u) << discarded.events().errorText;
    EXPECT_EQ(refused.events().errors, 1u);
    EXPECT_TRUE(std::filesystem::is_symlink(path));
    EXPECT_TRUE(std::filesystem::exists(pipe));
  }
  StalledTransfer queued(Stage::kQueued);
  writeFile(queued.path(), "the user's");
  queued.engine().destroy();
  EXPECT_EQ(queued.record().events().errors, 1u);
  EXPECT_EQ(readFile(queued.path()), "the user's");
}

}  // namespace
}  // namespace kovo::test
