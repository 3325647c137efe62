#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <kovo/kovo.hpp>
#include <memory>
#include <optional>
#include <set>
#include <thread>

#include "support/serve_resource.h"
#include "support/temp_dir.h"
#include "support/wait_until.h"

namespace kovo::test {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr milliseconds kPatience{60000};
constexpr std::uint64_t kChunk = 65536;

/* An engine with small chunks, and a server of one resource that a test may hold or break. */
class CppBinding : public testing::Test {
 protected:
  CppBinding() { ::setenv("XDG_DATA_HOME", _folder.file("data").c_str(), 1); }
  ~CppBinding() override { _origin.release(); }

  static EngineOptions smallChunks() {
    EngineOptions options;
    options.chunkSize = kChunk;
    options.progressInterval = milliseconds(1);
    options.connections = 8;
    options.activeTransfers = 16;
    return options;
  }
  std::string url(std::string_view path = "/file") const { return _origin.url(path); }
  std::string file(std::string_view name = "out") const { return _folder.file(name); }
  /* So many requests past the first chunk wait until the origin is released. */
  void hold(int most = 1000) { _mostHeld = most; }
  void waitUntilHeld() {
    EXPECT_TRUE(waitUntil([this] { return _held > 0; }, kPatience));
  }
  static const Result& ended(const Transfer& transfer) {
    if (!transfer.waitFor(kPatience)) {
      ADD_FAILURE() << "the transfer does not end";
      std::abort();
    }
    return transfer.wait();
  }

  void answer(const OriginRequest& request, Responder& to) {
    if (request.path == "/missing") {
      to.respond(404, {{"X-Reason", "none"}}, "no such thing");
    } else if (request.verb != "GET") {
      to.respond(201, {},
                 request.verb + " " + request.query + " " +
                     request.header("X-Colour").value_or("none") + " " + request.body);
    } else if (request.rangeStart() >= kChunk && _failures > 0 && _failures-- > 0) {
      to.respond(503, {}, "not now");
    } else {
      if (request.rangeStart() >= kChunk && _held++ < _mostHeld) to.stall();
      serveResource(_resource)(request, to);
    }
  }

  const Resource _resource{41, 40 * kChunk + 7};
  const TempDir _folder;
  std::atomic<int> _mostHeld{0};
  std::atomic<int> _held{0};
  std::atomic<int> _failures{0};
  FaultOrigin _origin{[this](const OriginRequest& request, Responder& to) { answer(request, to); }};
};

TEST_F(CppBinding, BringsBytesToFileMemoryAndCallback) {
  Engine engine(smallChunks());
  std::atomic<std::uint64_t> done{0};
  std::atomic<std::uint32_t> status{0};
  TransferOptions options;
  options.onProgress = [&](const Progress& p) { done = p.done; };
  options.onStatus = [&](const Response& r) { status = r.status; };
  const Transfer toFile = engine.download(url(), file(), options);
  EXPECT_EQ(ended(toFile).response.status, 206u);
  EXPECT_EQ(toFile.get().header("etag"), "\"v1\"");
  EXPECT_EQ(_resource.differenceTo(file()), "");
  EXPECT_NE(done, 0u);
  EXPECT_EQ(status, 206u);

  EXPECT_TRUE(_resource.matches(0, ended(engine.downloadToMemory(url())).response.body));
  const Transfer range = engine.downloadRange(url(), kChunk + 3, 5 * kChunk);
  EXPECT_EQ(ended(range).response.body.size(), 5 * kChunk);
  EXPECT_TRUE(_resource.matches(kChunk + 3, range.get().body));

  std::atomic<std::uint64_t> bytes{0};
  TransferOptions own;
  own.onBody = [&](std::uint64_t offset, std::string_view piece) {
    if (_resource.matches(offset, piece)) bytes += piece.size();
  };
  EXPECT_TRUE(ended(engine.downloadToMemory(url(), own)).response.body.empty());
  EXPECT_EQ(bytes, _resource.size());
}

TEST_F(CppBinding, SendsBodiesHeadersAndParameters) {
  EngineOptions engineOptions = smallChunks();
  std::atomic<int> finished{0};
  engineOptions.callbacks.onFinished = [&](const Result& result) {
    finished += result.ok() ? 1 : 0;
  };
  Engine engine(engineOptions);
  TransferOptions options;
  options.headers = {{"X-Colour", "red"}};
  options.parameters = {{"a", "1"}};
  EXPECT_EQ(ended(engine.send(Verb::kPost, url(), "{}", options)).response.body, "POST a=1 red {}");
  const Body body(6, [](std::uint64_t offset, char* buffer, std::size_t size) {
    const std::string text = "abcdef";
    return text.copy(buffer, std::min<std::size_t>(size, 4), static_cast<std::size_t>(offset));
  });
  EXPECT_EQ(ended(engine.uploadFromMemory(Verb::kPut, url(), body)).response.body,
            "PUT  none abcdef");
  writeFile(file(), "content");
  EXPECT_EQ(ended(engine.upload(Verb::kPut, url(), file())).response.body, "PUT  none content");
  EXPECT_EQ(ended(engine.send(Verb::kGet, url("/missing"))).response.status, 404u);
  EXPECT_EQ(finished, 4);
}

TEST_F(CppBinding, FailuresAreTyped) {
  Engine engine(smallChunks());
  for (const Chunking chunking : {Chunking::kAlways, Chunking::kSerial}) {
    TransferOptions options;
    options.chunking = chunking;
    for (const Transfer& transfer : {engine.download(url("/missing"), file(), options),
                                     engine.downloadToMemory(url("/missing"), options),
                                     engine.downloadRange(url("/missing"), 5, 10, options)}) {
      ended(transfer);
      try {
        transfer.get();
        ADD_FAILURE() << "a missing resource was downloaded";
      } catch (const HttpError& error) {
        EXPECT_EQ(error.status(), 404u);
        EXPECT_EQ(error.response().header("x-reason"), "none");
        EXPECT_STREQ(error.what(), "404 Not Found");
      }
    }
  }
  const Transfer refused = engine.downloadToMemory("http://127.0.0.1:1/");
  EXPECT_GE(ended(refused).code, static_cast<kovo_error>(KOVO_ERROR_PLATFORM_STATUS));
  EXPECT_THROW(refused.get(), Error);

  const auto codeOf = [](const auto& call) -> kovo_error {
    try {
      call();
    } catch (const Error& error) {
      return error.code();
    }
    return KOVO_ERROR_NONE;
  };
  TransferOptions tooLong;
  tooLong.headers = {{"X", std::string(8192, 'x')}};
  EXPECT_EQ(codeOf([&] { engine.download("", file()); }), KOVO_ERROR_NO_URL);
  EXPECT_EQ(codeOf([&] { engine.upload(Verb::kGet, url(), file()); }),
            KOVO_ERROR_INVALID_HTTP_VERB);
  EXPECT_EQ(codeOf([&] { engine.download(url(), file(), tooLong); }),
            KOVO_ERROR_INVALID_PARAMETERS);
  EXPECT_EQ(codeOf([&] { engine.setConnections(1); }), KOVO_ERROR_INVALID_PARAMETERS);
  EXPECT_EQ(codeOf([] { Transfer().get(); }), KOVO_ERROR_INVALID_PARAMETERS);
  EXPECT_FALSE(Transfer().cancel());

  Engine other = std::move(engine);
  EXPECT_EQ(codeOf([&] { engine.download(url(), file()); }), KOVO_ERROR_INSTANCE_RELEASED);
  EXPECT_TRUE(ended(other.download(url(), file())).ok());
}

TEST_F(CppBinding, AnExceptionOfACallbackCancelsAndIsRethrown) {
  Engine engine(smallChunks());
  struct Case {
    const char* name;
    std::function<void(TransferOptions&)> set;
  };
  const Case cases[] = {
      {"status", [](auto& o) { o.onStatus = [](const Response&) { throw std::string("mine"); }; }},
      {"headers",
       [](auto& o) { o.onHeaders = [](const kovo::Headers&) { throw std::string("mine"); }; }},
      {"body",
       [](auto& o) {
         o.onBody = [](std::uint64_t, std::string_view) { throw std::string("mine"); };
       }},
      {"chunk headers",
       [](auto& o) {
         o.chunkHeaders = [](ChunkType, const std::string&, std::uint32_t) -> kovo::Headers {
           throw std::string("mine");
         };
       }},
  };
  for (const Case& c : cases) {
    TransferOptions options;
    c.set(options);
    options.onFinished = [](const Result&) { throw 7; };
    const Transfer transfer = engine.downloadToMemory(url(), options);
    EXPECT_FALSE(ended(transfer).ok()) << c.name;
    EXPECT_THROW(transfer.get(), std::string) << c.name;
  }
}

TEST_F(CppBinding, CancelsPausesAndResumes) {
  hold();
  Engine engine(smallChunks());
  std::atomic<int> pauses{0};
  TransferOptions options;
  options.onPaused = [&] { ++pauses; };
  const Transfer resumed = engine.download(url(), file("a"), options);
  waitUntilHeld();
  EXPECT_TRUE(resumed.pause());
  EXPECT_TRUE(resumed.resume());
  EXPECT_TRUE(resumed.pause());
  const Transfer cancelled = engine.download(url(), file("b"));
  EXPECT_TRUE(cancelled.cancel());
  EXPECT_THROW((ended(cancelled), cancelled.get()), Cancelled);
  EXPECT_FALSE(cancelled.cancel());

  _origin.release();
  EXPECT_TRUE(waitUntil([&] { return pauses == 1; }, kPatience));
  EXPECT_FALSE(resumed.waitFor(milliseconds(0)));
  EXPECT_TRUE(resumed.resume());
  EXPECT_TRUE(ended(resumed).ok());
  EXPECT_EQ(_resource.differenceTo(file("a")), "");
}

TEST_F(CppBinding, ATransferMayBeCancelledInItsOwnFirstCallback) {
  Engine engine(smallChunks());
  for (int i = 0; i < 20; ++i) {
    auto self = std::make_shared<std::promise<Transfer>>();
    TransferOptions options;
    options.onStatus = [known = self->get_future().share()](const Response&) {
      EXPECT_TRUE(known.get().cancel());
    };
    const Transfer transfer = engine.download(url(), file(), options);
    self->set_value(transfer);
    EXPECT_EQ(ended(transfer).code, static_cast<kovo_error>(KOVO_ERROR_CANCELLED));
  }
}

TEST_F(CppBinding, DestroyingAnEngineEndsEveryTransfer) {
  hold();
  std::optional<Engine> engine(smallChunks());
  std::atomic<bool> paused{false};
  TransferOptions options;
  options.onPaused = [&] { paused = true; };
  const Transfer resting = engine->download(url(), file("a"), options);
  waitUntilHeld();
  EXPECT_TRUE(resting.pause());
  hold(0);
  _origin.release();
  EXPECT_TRUE(waitUntil([&] { return paused.load(); }, kPatience));
  _failures = 1000000;
  TransferOptions patient;
  patient.retries = 1000;
  const Transfer waiting = engine->download(url(), file("b"), patient);
  EXPECT_TRUE(waitUntil([&] { return _failures < 999990; }, kPatience));

  const auto before = steady_clock::now();
  engine.reset();
  EXPECT_LT(steady_clock::now() - before, std::chrono::seconds(5));
  for (const Transfer& transfer : {resting, waiting}) {
    EXPECT_EQ(ended(transfer).code, static_cast<kovo_error>(KOVO_ERROR_CANCELLED));
    EXPECT_THROW(transfer.get(), Cancelled);
    EXPECT_FALSE(transfer.pause());
    EXPECT_FALSE(transfer.resume());
    EXPECT_FALSE(transfer.cancel());
  }
}

TEST_F(CppBinding, AnEngineMayBeDestroyedInsideACallback) {
  hold(1);
  auto engine = std::make_shared<std::optional<Engine>>(smallChunks());
  const Transfer held = (*engine)->download(url(), file("held"));
  waitUntilHeld();
  TransferOptions options;
  options.onFinished = [engine](const Result&) { engine->reset(); };
  const Transfer last = (*engine)->send(Verb::kPost, url(), "x", options);
  options = {};
  EXPECT_TRUE(ended(last).ok());
  EXPECT_EQ(ended(held).code, static_cast<kovo_error>(KOVO_ERROR_CANCELLED));
  EXPECT_TRUE(waitUntil([&] { return engine.use_count() == 1; }, kPatience));
}

TEST_F(CppBinding, ReplacingAnEngineEndsTheOldOne) {
  hold();
  Engine engine(smallChunks());
  const Transfer old = engine.download(url(), file("old"));
  waitUntilHeld();
  engine = Engine(smallChunks());
  EXPECT_EQ(ended(old).code, static_cast<kovo_error>(KOVO_ERROR_CANCELLED));
  hold(0);
  EXPECT_TRUE(ended(engine.download(url(), file("new"))).ok());
}

TEST_F(CppBinding, WhatCallbacksCapturedIsReleasedAtTheEnd) {
  Engine engine(smallChunks());
  auto captured = std::make_shared<Transfer>();
  const std::weak_ptr<Transfer> watch = captured;
  TransferOptions options;
  options.onProgress = [captured](const Progress&) {};
  *captured = engine.download(url(), file(), options);
  const Transfer transfer = *captured;
  captured.reset();
  options = {};
  EXPECT_TRUE(ended(transfer).ok());
  EXPECT_TRUE(waitUntil([&] { return watch.expired(); }, kPatience));
}

TEST_F(CppBinding, PassingFailuresAreRetried) {
  Engine engine(smallChunks());
  _failures = 3;
  EXPECT_TRUE(ended(engine.download(url(), file())).ok());
  EXPECT_EQ(_resource.differenceTo(file()), "");

  _failures = 1000000;
  TransferOptions never;
  never.retries = 0;
  const Transfer failed = engine.download(url(), file(), never);
  ended(failed);
  try {
    failed.get();
    ADD_FAILURE() << "a failed chunk was forgotten";
  } catch (const HttpError& error) {
    EXPECT_EQ(error.status(), 503u);
  }
  std::mutex mutex;
  std::set<std::uint32_t> statuses;
  TransferOptions asked;
  asked.onRequestFailed = [&](const RequestFailure& failure) {
    const std::lock_guard lock(mutex);
    statuses.insert(failure.status);
    _failures = 0;
    return true;
  };
  EXPECT_TRUE(ended(engine.download(url(), file(), asked)).ok());
  EXPECT_EQ(statuses, std::set<std::uint32_t>{503});
}

/* What threads do to engine and handles at the same time is for the thread sanitizer to judge. */
TEST_F(CppBinding, ThreadsMeet) {
  for (int round = 0; round < 3; ++round) {
    Engine engine(smallChunks());
    std::atomic<int> results{0};
    std::atomic<int> started{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
      threads.emplace_back([&, t] {
        TransferOptions options;
        options.onFinished = [&](const Result&) { ++results; };
        for (int i = 0; i < 10; ++i) {
          try {
            const std::string name = std::to_string(t) + "-" + std::to_string(i);
            const Transfer transfer = engine.download(url(), file(name), options);
            ++started;
            if (i % 3 == 1) transfer.pause();
            if (i % 3 == 2) transfer.cancel();
            transfer.resume();
          } catch (const Error& error) {
            EXPECT_EQ(error.code(), KOVO_ERROR_INSTANCE_RELEASED);
          }
        }
      });
    }
    if (round == 0) {
      EXPECT_TRUE(waitUntil([&] { return results >= 5; }, kPatience));
    }
    for (std::thread& thread : threads) thread.join();
    engine.close();
    EXPECT_EQ(results, started);
  }
}

TEST_F(CppBinding, TheLoggerOutlivesEngines) {
  std::atomic<int> lines{0};
  setLogger([&](LogLevel, std::string_view, const char*, const char*, std::uint32_t) {
    ++lines;
    throw 7;
  });
  for (int i = 0; i < 2; ++i) {
    lines = 0;
    Engine engine(smallChunks());
    EXPECT_FALSE(ended(engine.downloadToMemory(url("/missing"))).ok());
    EXPECT_TRUE(waitUntil([&] { return lines > 0; }, kPatience));
  }
  setLogger({});
  EXPECT_EQ(version().substr(0, 4), "1.3.");
}

}  // namespace
}  // namespace kovo::test
