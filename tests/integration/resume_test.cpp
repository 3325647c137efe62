#include <gtest/gtest.h>
#include <sqlite3.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <future>
#include <random>
#include <thread>

#include "integration/small_chunks.h"
#include "support/child_process.h"
#include "support/gate.h"
#include "support/serve_resource.h"
#include "support/wait_until.h"

namespace kovo::test {
namespace {

using std::chrono::milliseconds;

/* Eleven chunks, the last one short. */
const Resource kResource(31, 10 * kChunk + 77);
constexpr size_t kChunks = 11;
constexpr uint64_t kNever = UINT64_MAX;

/** The first column of the first row; -1 when the statement fails or has none. */
int64_t query(const std::string& database, const std::string& sql) {
  sqlite3* connection = nullptr;
  sqlite3_stmt* statement = nullptr;
  int64_t value = -1;
  if (sqlite3_open_v2(database.c_str(), &connection, SQLITE_OPEN_READWRITE, nullptr) == SQLITE_OK) {
    sqlite3_busy_timeout(connection, 5000);
    if (sqlite3_prepare_v2(connection, sql.c_str(), -1, &statement, nullptr) == SQLITE_OK &&
        sqlite3_step(statement) == SQLITE_ROW) {
      value = sqlite3_column_int64(statement, 0);
    }
  }
  sqlite3_finalize(statement);
  sqlite3_close(connection);
  return value;
}

/** An origin whose answers the test changes, and a data directory that outlives the engines. */
class Continued : public ::testing::Test {
 protected:
  /** What a run asked the origin for. */
  struct Run {
    TransferEvents events;
    size_t heads = 0;
    size_t gets = 0;
    uint64_t bytes = 0;
  };
  enum class How { kDestroy, kCancel };

  void TearDown() override { _origin.release(); }

  int64_t resumeQuery(const std::string& sql) const { return query(_resumeDatabase, sql); }
  int64_t rows() const { return resumeQuery("SELECT COUNT(*) FROM DownloadChunkStatus"); }
  int64_t cacheEntries() const {
    return query(_cacheDatabase, "SELECT COUNT(*) FROM CacheEntries");
  }
  void expectNoRows() const {
    /* They go right after the completion callback. */
    EXPECT_TRUE(waitUntil([&] { return rows() == 0; }, std::chrono::seconds(5))) << rows();
    EXPECT_EQ(resumeQuery("SELECT COUNT(*) FROM DownloadGeometry"), 0);
  }

  void answerWith(OriginHandler answer) {
    const std::lock_guard lock(_mutex);
    _answer = std::move(answer);
  }
  void serve(const ServeOptions& options, const Resource& resource = kResource) {
    answerWith(serveResource(resource, options));
  }

  TestEngineOptions options(TestEngineOptions with = smallChunksUncached()) const {
    with.dataHome = _dir.file("data");
    return with;
  }

  /** Downloads until five chunks are recorded (or the rest is due) and stops the engine. */
  void interrupt(How how = How::kDestroy, int64_t recorded = 5) {
    TestEngine engine(options());
    _stopAt = 5 * kChunk;
    const size_t before = _origin.requestCount();
    const TransferRecord& record = engine.download(_origin.url("/f"), _path);
    ASSERT_TRUE(
        waitUntil([&] { return _origin.requestCount() == before + kChunks && rows() == recorded; },
                  milliseconds(10000)))
        << rows() << " rows";
    if (how == How::kCancel) {
      EXPECT_EQ(engine.cancel(record), KOVO_ERROR_NONE);
      ASSERT_TRUE(engine.wait(record));
      EXPECT_EQ(record.events().cancellations, 1u);
    }
    engine.destroy();
    if (how == How::kDestroy) {
      EXPECT_EQ(record.events().errorCode, KOVO_ERROR_CANCELLED);
    }
    EXPECT_TRUE(std::filesystem::exists(_path));
    EXPECT_EQ(rows(), recorded);
    _stopAt = kNever;
  }

  Run run(TestEngine& engine, const std::string& path) {
    const size_t before = _origin.requestCount();
    const TransferRecord& record = engine.download(_origin.url("/f"), path);
    engine.wait(record);
    Run run;
    run.events = record.events();
    const std::vector<OriginRequest> requests = _origin.requests();
    for (size_t i = before; i < requests.size(); ++i) {
      const bool isGet = requests[i].verb == "GET";
      ++(isGet ? run.gets : run.heads);
      if (isGet) run.bytes += bytesAskedFor(requests[i]);
    }
    return run;
  }
  Run run() {
    TestEngine engine(options());
    return run(engine, _path);
  }

  static uint64_t bytesAskedFor(const OriginRequest& request,
                                const Resource& resource = kResource) {
    const uint64_t end = request.range() ? request.range()->last.value_or(kNever - 1) + 1 : kNever;
    return std::min(end, resource.size()) - request.rangeStart();
  }

  void expectComplete(const Run& run, const Resource& resource = kResource) {
    EXPECT_EQ(run.events.completions, 1u) << run.events.errorText;
    EXPECT_EQ(resource.differenceTo(_path), "");
    expectNoRows();
  }

  TempDir _dir;
  const std::string _path = _dir.file("out._kstmp");
  const std::string _resumeDatabase = _dir.file("data/Orvel/KOVO/sqliteResumeTransfer.db");
  /* Beside the engine's directory, not in it. */
  const std::string _cacheDatabase = _dir.file("data/Orvel/KOVOkovoDB.sqlite");
  std::atomic<uint64_t> _stopAt{kNever};
  std::mutex _mutex;
  OriginHandler _answer = serveResource(kResource); /* guarded by _mutex */
  FaultOrigin _origin{[this](const OriginRequest& request, Responder& to) {
    OriginHandler answer;
    {
      const std::lock_guard lock(_mutex);
      answer = _answer;
    }
    if (request.verb == "GET" && request.rangeStart() >= _stopAt) to.stall();
    answer(request, to);
  }};
};

using Resume = Continued;
using RangeCache = Continued;

TEST_F(Resume, FetchesOnlyWhatIsMissing) {
  for (const How how : {How::kDestroy, How::kCancel}) {
    interrupt(how);
    const Run rest = run();
    expectComplete(rest);
    EXPECT_EQ(rest.heads, 1u);
    EXPECT_EQ(rest.bytes, kResource.size() - 5 * kChunk);
    std::filesystem::remove(_path);
  }
}

TEST_F(Resume, ProgressOfWhatIsPresentHoldsUpNoOtherTransfer) {
  interrupt();
  TestEngineOptions with = options();
  with.config.progressInterval = 1;
  TestEngine engine(with);
  Gate reported;
  Gate mayGoOn;
  TransferHooks hooks;
  hooks.onProgress = [&] {
    reported.open();
    mayGoOn.waitFor(std::chrono::milliseconds(20000));
  };
  TransferRecord& resumed = engine.download(_origin.url("/f"), _path, hooks);
  ASSERT_TRUE(reported.waitFor(std::chrono::milliseconds(10000)));
  TransferRecord& other = engine.downloadToMemory(_origin.url("/other"));
  EXPECT_TRUE(engine.wait(other, std::chrono::milliseconds(10000)));
  mayGoOn.open();
  ASSERT_TRUE(engine.wait(resumed));
  /* What was present counts once. The last report may be left out: it can come too soon. */
  EXPECT_LE(resumed.events().progress.back().first, kResource.size());
}

TEST_F(Resume, AnotherChunkSizeSkipsNoByte) {
  for (const uint64_t size : {kChunk / 2, kChunk - 1, 3 * kChunk + 1, 2 * kResource.size()}) {
    for (const bool cutKnown : {true, false}) {
      SCOPED_TRACE(::testing::Message() << size << " known " << cutKnown);
      interrupt();
      if (!cutKnown) resumeQuery("DELETE FROM DownloadGeometry");
      TestEngineOptions with = options();
      with.config.chunkSize = size;
      TestEngine engine(with);
      const Run rest = run(engine, _path);
      expectComplete(rest);
      EXPECT_EQ(rest.bytes, kResource.size() - (cutKnown ? 5 * kChunk : 0));
      std::filesystem::remove(_path);
    }
  }
}

TEST_F(Resume, AnotherResourceInTheSameFileLeavesNoRowsBehind) {
  interrupt();
  ServeOptions untagged;
  untagged.etag.clear();
  const Resource other(34, kResource.size());
  answerWith([get = serveResource(other, untagged)](const OriginRequest& request, Responder& to) {
    if (request.verb != "HEAD") return get(request, to);
    to.closeAfterwards(); /* without a length, so that nothing tells how much there is */
    to.head(200, {{"Connection", "close"}});
  });
  {
    TestEngine engine(options());
    _stopAt = 5 * kChunk;
    const TransferRecord& record = engine.download(_origin.url("/g"), _path);
    const auto hasItsBytes = [&] {
      const std::string bytes = readFile(_path);
      return bytes.size() == 5 * kChunk && other.matches(0, bytes);
    };
    EXPECT_TRUE(waitUntil(hasItsBytes, milliseconds(10000)));
    EXPECT_EQ(engine.cancel(record), KOVO_ERROR_NONE);
    ASSERT_TRUE(engine.wait(record));
  }
  _stopAt = kNever;
  serve({});
  expectComplete(run());
}

/* Whatever makes the partial file or its rows worthless, the download is right in the end. */
TEST_F(Resume, StartsAfreshWhenNothingCanBeTrusted) {
  const Resource other(32, kResource.size());
  const Resource longer(33, kResource.size() + kChunk);
  const auto serveOther = [this](const Resource& resource) {
    ServeOptions later;
    later.etag = "\"v2\"";
    serve(later, resource);
  };
  const auto headAnswer = [this](int status, const Headers& headers) {
    answerWith([=, get = serveResource(kResource)](const OriginRequest& request, Responder& to) {
      if (request.verb != "HEAD") return get(request, to);
      to.closeAfterwards();
      to.head(status, headers);
    });
  };
  struct Case {
    const char* name;
    std::function<void()> spoil;
    const Resource& resource = kResource;
  };
  const Case cases[] = {
      {"entity tag", [&] { serveOther(other); }, other},
      {"entity tag and size", [&] { serveOther(longer); }, longer},
      {"file missing", [&] { std::filesystem::remove(_path); }},
      {"file empty", [&] { std::filesystem::resize_file(_path, 0); }},
      {"file truncated", [&] { std::filesystem::resize_file(_path, 2 * kChunk); }},
      {"file too short by one", [&] { std::filesystem::resize_file(_path, 5 * kChunk - 1); }},
      {"old",
       [&] {
         std::filesystem::last_write_time(
             _path, std::filesystem::file_time_type::clock::now() - std::chrono::hours(5 * 24 + 1));
       }},
      {"schema", [&] { resumeQuery("UPDATE VersionTable SET version = '1.0'"); }},
      {"garbage", [&] { writeFile(_resumeDatabase, Resource(1, 9000).all()); }},
      {"no first chunk", [&] { resumeQuery("DELETE FROM DownloadChunkStatus WHERE firstByte=0"); }},
      {"rows off the grid",
       [&] { resumeQuery("UPDATE DownloadChunkStatus SET firstByte=firstByte*3/2"); }},
      {"HEAD without length",
       [&] {
         headAnswer(200, {{"ETag", "\"v1\""}, {"Connection", "close"}});
       }},
      {"HEAD refused",
       [&] {
         headAnswer(405, {{"Content-Length", "0"}, {"Connection", "close"}});
       }},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    interrupt();
    c.spoil();
    TestEngine engine(options());
    const size_t before = _origin.requestCount();
    const Run fresh = run(engine, _path);
    expectComplete(fresh, c.resource);
    uint64_t bytes = 0;
    const auto requests = _origin.requests();
    for (size_t i = before; i < requests.size(); ++i) {
      if (requests[i].verb == "GET") bytes += bytesAskedFor(requests[i], c.resource);
    }
    EXPECT_EQ(bytes, c.resource.size());
    EXPECT_LE(fresh.heads, 1u);
    std::filesystem::remove(_path);
    serve({});
  }
}

TEST_F(Resume, NeverWithoutAStrongEntityTag) {
  for (const char* etag : {"", "W/\"v1\""}) {
    ServeOptions with;
    with.etag = etag;
    serve(with);
    interrupt(How::kDestroy, *etag == '\0' ? 0 : 5);
    const Run fresh = run();
    expectComplete(fresh);
    EXPECT_EQ(fresh.bytes, kResource.size()) << etag;
    std::filesystem::remove(_path);
  }
}

TEST_F(Resume, WithEveryChunkRecordedCompletesAndMakesRoom) {
  interrupt();
  kResource.writeTo(_path);
  for (uint64_t chunk = 5; chunk < kChunks; ++chunk) {
    resumeQuery(
        "INSERT INTO DownloadChunkStatus(filePath, eTag, firstByte) SELECT filePath, eTag, " +
        std::to_string(chunk * kChunk) + " FROM DownloadChunkStatus LIMIT 1");
  }
  ASSERT_EQ(rows(), static_cast<int64_t>(kChunks));
  TestEngineOptions with = options();
  with.config.maxActiveWorkProviders = 1;
  TestEngine engine(with);
  const Run rest = run(engine, _path);
  expectComplete(rest);
  EXPECT_EQ(rest.gets, 0u);
  EXPECT_EQ(run(engine, engine.file("next")).events.completions, 1u);
}

TEST_F(Resume, AnErrorDeletesFileAndRows) {
  interrupt();
  answerWith([](const OriginRequest& request, Responder& to) {
    if (request.rangeStart() >= 5 * kChunk) return to.respond(404);
    serveResource(kResource)(request, to);
  });
  const Run failed = run();
  EXPECT_EQ(failed.events.errors, 1u);
  EXPECT_FALSE(std::filesystem::exists(_path));
  expectNoRows();
}

TEST_F(Resume, ACancelInTheCompletionCallbackIsRefused) {
  TestEngine engine(options());
  std::promise<TransferRecord*> started;
  std::atomic<kovo_error> result{KOVO_ERROR_NONE};
  TransferHooks hooks;
  hooks.onFinal = [&, record = started.get_future().share()] {
    result = engine.cancel(*record.get());
  };
  TransferRecord& record = engine.download(_origin.url("/f"), _path, hooks);
  started.set_value(&record);
  ASSERT_TRUE(engine.wait(record));
  /* The token may be forgotten by then. */
  EXPECT_TRUE(result == KOVO_ERROR_NOT_CANCELLABLE || result == KOVO_ERROR_INVALID_PARAMETERS)
      << result;
  EXPECT_EQ(record.events().completions, 1u);
  EXPECT_EQ(kResource.differenceTo(_path), "");
  expectNoRows();
}

TEST_F(Resume, ACancelRacingTheEndIsEitherAcceptedOrRefused) {
  TestEngine engine(options());
  std::mt19937 random(7);
  for (int round = 0; round < 40; ++round) {
    const size_t last = _origin.requestCount() + kChunks;
    TransferRecord& record = engine.download(_origin.url("/f"), _path);
    waitUntil([&] { return _origin.requestCount() >= last; }, milliseconds(10000));
    std::this_thread::sleep_for(std::chrono::microseconds(random() % 3000));
    const kovo_error result = engine.cancel(record);
    ASSERT_TRUE(engine.wait(record));
    if (result == KOVO_ERROR_NONE) {
      EXPECT_EQ(record.events().cancellations, 1u);
      EXPECT_TRUE(std::filesystem::exists(_path));
    } else {
      EXPECT_EQ(record.events().completions, 1u);
      EXPECT_EQ(kResource.differenceTo(_path), "");
      expectNoRows();
    }
    resumeQuery("DELETE FROM DownloadChunkStatus");
  }
}

TEST_F(RangeCache, ServesASecondDownloadAndNothingOld) {
  TestEngine first(options(smallChunks()));
  TestEngine second(options(smallChunks()));
  const auto fetch = [&](TestEngine& engine, const Resource& resource) {
    const std::string path = engine.file("out");
    const Run fetched = run(engine, path);
    EXPECT_EQ(fetched.events.completions, 1u) << fetched.events.errorText;
    EXPECT_EQ(resource.differenceTo(path), "");
    return fetched.gets;
  };
  const auto isStored = [this](size_t entries) {
    return waitUntil([=, this] { return cacheEntries() == static_cast<int64_t>(entries); },
                     milliseconds(10000));
  };
  EXPECT_EQ(fetch(first, kResource), kChunks);
  ASSERT_TRUE(isStored(kChunks)) << cacheEntries();
  EXPECT_EQ(fetch(first, kResource), 1u);
  EXPECT_EQ(fetch(second, kResource), 1u) << "another engine";

  const Resource changed(51, kResource.size());
  ServeOptions later;
  later.etag = "\"v2\"";
  later.lastModified = "Thu, 22 Oct 2015 07:28:00 GMT";
  serve(later, changed);
  EXPECT_EQ(fetch(second, changed), kChunks);
  /* One date and another tag: the date must not vouch for bytes of another version. */
  later.etag = "\"v3\"";
  serve(later, kResource);
  EXPECT_EQ(fetch(first, kResource), kChunks);

  kovoClearCache(first.instance());
  EXPECT_TRUE(isStored(0)) << cacheEntries();
  EXPECT_EQ(fetch(second, kResource), kChunks);
}

TEST_F(RangeCache, KeepsOnlyWhatMayBeKept) {
  ServeOptions noStore;
  noStore.extraHeaders = {{"Cache-Control", "no-store"}};
  ServeOptions weak;
  weak.etag = "W/\"v1\"";
  ServeOptions unmarked;
  unmarked.etag.clear();
  unmarked.lastModified.clear();
  const OriginHandler answers[] = {
      serveResource(kResource, noStore), serveResource(kResource, weak),
      serveResource(kResource, unmarked), [](const OriginRequest& request, Responder& to) {
        const uint64_t begin = request.rangeStart();
        const uint64_t length = std::min(kChunk, kResource.size() - begin);
        to.head(206, {{"ETag", "\"v1\""},
                      {"Transfer-Encoding", "chunked"},
                      {"Content-Range", "bytes " + std::to_string(begin) + '-' +
                                            std::to_string(begin + length - 1) + '/' +
                                            std::to_string(kResource.size())}});
        to.chunk(kResource.bytes(begin, length));
        to.endChunks();
      }};
  for (const OriginHandler& answer : answers) {
    SCOPED_TRACE(&answer - answers);
    answerWith(answer);
    for (int round = 0; round < 2; ++round) {
      TestEngine engine(options(smallChunks()));
      const Run fetched = run(engine, _path + "x");
      EXPECT_EQ(fetched.events.completions, 1u) << fetched.events.errorText;
      EXPECT_EQ(kResource.differenceTo(_path + "x"), "");
      EXPECT_EQ(fetched.gets, kChunks);
    }
    EXPECT_EQ(cacheEntries(), 0);
  }
}

TEST_F(RangeCache, ADamagedDatabaseCostsRequestsAndNoByte) {
  const std::string& file = _cacheDatabase;
  const std::string stored = kResource.bytes(5 * kChunk + 1000, 16);
  for (const bool inData : {false, true}) {
    SCOPED_TRACE(inData);
    {
      TestEngine engine(options(smallChunks()));
      run(engine, _path + "x");
      EXPECT_TRUE(
          waitUntil([&] { return cacheEntries() == int64_t{kChunks}; }, milliseconds(10000)));
    }
    std::string bytes = readFile(file);
    if (inData) {
      ASSERT_NE(bytes.find(stored), std::string::npos);
      for (size_t at = 0; (at = bytes.find(stored, at)) != std::string::npos;) bytes[at] ^= 1;
    } else {
      bytes.replace(0, kChunk, Resource(1, kChunk).all());
    }
    writeFile(file, bytes);
    std::filesystem::remove(file + "-wal");
    {
      TestEngine engine(options(smallChunks()));
      const Run fetched = run(engine, _path + "x");
      EXPECT_EQ(fetched.events.completions, 1u) << fetched.events.errorText;
      EXPECT_EQ(kResource.differenceTo(_path + "x"), "");
      /* Damage found in one entry ends the use of the cache; others may have been served before. */
      EXPECT_GE(fetched.gets, inData ? 2u : kChunks);
      EXPECT_LE(fetched.gets, kChunks);
    }
    const std::string out = _dir.file("program" + std::to_string(inData));
    writeFile(file, bytes);
    EXPECT_NO_THROW(ChildProcess::run({KOVO_PROGRAM, "get", "-q", "--cache", "--chunk-size",
                                       "65536", "-o", out, _origin.url("/f")},
                                      _dir.file("log")));
    EXPECT_EQ(kResource.differenceTo(out), "");
  }
}

}  // namespace
}  // namespace kovo::test
