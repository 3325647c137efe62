#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <utime.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>
#include <vector>

#include "integration/storage_mocks.h"
#include "support/engine_fixture.h"
#include "support/wait_until.h"

namespace kovo::test {
namespace {

using std::chrono::milliseconds;
using testing::AllOf;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;

constexpr uint64_t kMiB = 1024 * 1024;
/* Three parts of the smallest size there is, the last one short. */
const Resource kThreeParts(31, 11 * kMiB + 5);

TransferHooks forServer(kovo_server_type type) {
  TransferHooks hooks;
  hooks.serverType = type;
  return hooks;
}

size_t count(const FaultOrigin& origin, const std::string& verb, const std::string& inTarget) {
  size_t found = 0;
  for (const OriginRequest& request : origin.requests()) {
    found += request.verb == verb && request.target.find(inTarget) != std::string::npos ? 1 : 0;
  }
  return found;
}

class Upload : public testing::Test {
 protected:
  Upload() { kovoSetS3Endpoint("127.0.0.1"); }
  ~Upload() override {
    kovoSetS3Endpoint(nullptr);
    EXPECT_THAT(_mock.complaints(), IsEmpty());
  }

  /* What the mock does in place of its usual answer. */
  std::optional<Refusal> intercept(const OriginRequest& request, Responder& to) {
    StorageMock::Intercept what;
    {
      const std::lock_guard guard(_interceptMutex);
      what = _intercept;
    }
    return what ? what(request, to) : std::nullopt;
  }
  void setIntercept(StorageMock::Intercept what) {
    const std::lock_guard guard(_interceptMutex);
    _intercept = std::move(what);
  }
  /* Answers the first matching request so, and only that one. */
  void refuseOnce(const std::string& verb, const std::string& inTarget, Refusal refusal) {
    setIntercept([verb, inTarget, refusal, done = std::make_shared<std::atomic<bool>>(false)](
                     const OriginRequest& request, Responder&) -> std::optional<Refusal> {
      if (request.verb != verb || request.target.find(inTarget) == std::string::npos ||
          done->exchange(true)) {
        return std::nullopt;
      }
      return refusal;
    });
  }

  std::string writeParts() {
    const std::string path = _folder.file("three-parts");
    _content->writeTo(path);
    return path;
  }
  /* A file that an earlier run has sent stays as it is. */
  TransferRecord& start(TestEngine& engine, const std::string& target, TransferHooks hooks) {
    const std::string path = _folder.file("three-parts");
    if (!std::filesystem::exists(path)) {
      writeParts();
    }
    return engine.upload(KOVO_HTTP_PUT, _mock.url(target), path, std::move(hooks),
                         KOVO_CHUNKING_ALWAYS);
  }
  TransferEvents run(TestEngine& engine, const std::string& target, TransferHooks hooks) {
    TransferRecord& record = start(engine, target, std::move(hooks));
    engine.wait(record);
    return record.events();
  }
  void expectStored(const TransferEvents& events, const std::string& target) {
    EXPECT_EQ(events.completions, 1u) << events.errorCode << " " << events.errorText;
    expectObject(target);
  }
  void expectObject(const std::string& target) {
    const auto object = _mock.object(target);
    ASSERT_TRUE(object.has_value());
    EXPECT_EQ(object->size(), _content->size());
    EXPECT_TRUE(_content->matches(0, *object));
  }

  TempDir _folder;
  std::string _plan;
  const Resource* _content = &kThreeParts;
  std::mutex _interceptMutex;
  StorageMock::Intercept _intercept;
  StorageMock _mock{
      [this](const OriginRequest& request, Responder& to) { return intercept(request, to); }};
};

/* --- Plain ---------------------------------------------------------------------------------- */

TEST_F(Upload, PlainSendsOneRequestWithTheWholeBody) {
  TestEngine engine;
  expectStored(run(engine, "/plain", {}), "/plain");
  TransferHooks hooks;
  hooks.requestBody = "from memory";
  TransferRecord& memory =
      engine.uploadFromMemory(KOVO_HTTP_POST, _mock.url("/memory"), std::move(hooks));
  ASSERT_TRUE(engine.wait(memory));
  EXPECT_EQ(memory.events().completions, 1u) << memory.events().errorText;
  EXPECT_EQ(memory.events().wholeBody(), "stored");
  EXPECT_EQ(_mock.object("/memory"), "from memory");
  EXPECT_EQ(_mock.origin().requestCount(), 2u);
}

TEST_F(Upload, ProgressRunsOverTheBodyThatIsSent) {
  const std::string answer(300'000, 'a');
  setIntercept([&answer](const OriginRequest&, Responder&) { return Refusal{200, {}, answer}; });
  TestEngineOptions options;
  options.config.progressInterval = 1;
  TestEngine engine(options);
  TransferHooks hooks;
  hooks.requestBody = "from memory";
  const TransferRecord& upload =
      engine.uploadFromMemory(KOVO_HTTP_PUT, _mock.url("/memory"), hooks);
  const TransferRecord& post = engine.sendRequest(KOVO_HTTP_POST, _mock.url("/post"), hooks);
  for (const TransferRecord* record : {&upload, &post}) {
    ASSERT_TRUE(engine.wait(*record));
    EXPECT_EQ(record->events().wholeBody().size(), answer.size());
    EXPECT_EQ(record->events().progress.back().first, 11u) << "the answer does not count";
  }
}

TEST_F(Upload, EmptyBodiesKeepTheConnectionInStep) {
  const std::string path = _folder.file("empty");
  writeFile(path, "");
  TestEngine engine;
  for (const kovo_server_type type :
       {KOVO_SERVER_TYPE_DEFAULT, KOVO_SERVER_TYPE_S3, KOVO_SERVER_TYPE_SYNC_SERVICE}) {
    const std::string target = "/assets/empty-" + std::to_string(type);
    TransferRecord& record = engine.upload(KOVO_HTTP_PUT, _mock.url(target), path, forServer(type),
                                           KOVO_CHUNKING_ALWAYS);
    ASSERT_TRUE(engine.wait(record));
    EXPECT_EQ(record.events().completions, 1u) << type << record.events().errorText;
    EXPECT_EQ(_mock.object(target), "") << type;
  }
  for (const OriginRequest& request : _mock.origin().requests()) {
    EXPECT_EQ(request.header("Content-Length"), "0");
    EXPECT_EQ(request.verb, "PUT") << "no stray byte before a later request";
  }
}

TEST_F(Upload, RefusedForItsRangeIsNotSentAgainWithoutABody) {
  setIntercept([](const OriginRequest&, Responder&) { return Refusal{416, {}, "no"}; });
  TestEngine engine;
  const TransferEvents events = run(engine, "/plain", {});
  EXPECT_EQ(events.status, 416u);
  EXPECT_EQ(_mock.origin().requestCount(), 1u);
  EXPECT_EQ(_mock.object("/plain"), std::nullopt);
}

TEST_F(Upload, MissingFileFailsBeforeAnythingIsSent) {
  TestEngine engine;
  TransferRecord& record =
      engine.upload(KOVO_HTTP_PUT, _mock.url("/plain"), _folder.file("missing"));
  ASSERT_TRUE(engine.wait(record));
  EXPECT_EQ(record.events().errorCode, static_cast<uint32_t>(KOVO_ERROR_INVALID_INPUT_FILE));
  EXPECT_THAT(record.events().errorText, HasSubstr("Could not get mod time for: "));
  EXPECT_EQ(_mock.origin().requestCount(), 0u);
}

/* --- S3 ------------------------------------------------------------------------------------- */

TEST_F(Upload, S3SendsPartsAndCompletesWithTheirTags) {
  TestEngine engine;
  TransferHooks hooks = forServer(KOVO_SERVER_TYPE_S3);
  hooks.requestHeaders = {{"X-Client", "1"}};
  const TransferEvents events = run(engine, "/bucket/key", hooks);
  expectStored(events, "/bucket/key");
  EXPECT_EQ(count(_mock.origin(), "POST", "?uploads"), 1u);
  EXPECT_EQ(count(_mock.origin(), "PUT", "?partNumber="), 3u);
  EXPECT_EQ(_mock.origin().requestCount(), 5u);
  for (const OriginRequest& request : _mock.origin().requests()) {
    EXPECT_EQ(request.header("X-Client"), "1");
  }
  std::vector<std::pair<uint32_t, uint32_t>> chunks;
  for (const auto& call : events.chunkHeaderCalls) {
    chunks.emplace_back(call.type, call.number);
  }
  EXPECT_THAT(chunks, testing::UnorderedElementsAre(std::pair{0u, 0xFFFFFFFFu}, std::pair{1u, 0u},
                                                    std::pair{1u, 1u}, std::pair{1u, 2u},
                                                    std::pair{2u, 0xFFFFFFFFu}));
  EXPECT_EQ(events.bodyBytes, 0u) << "protocol answers are not the client's";
}

TEST_F(Upload, S3SendsASmallFileInOneRequest) {
  const std::string path = _folder.file("small");
  writeFile(path, "small");
  TestEngine engine;
  TransferRecord& record = engine.upload(KOVO_HTTP_PUT, _mock.url("/bucket/small"), path,
                                         forServer(KOVO_SERVER_TYPE_S3), KOVO_CHUNKING_ALWAYS);
  ASSERT_TRUE(engine.wait(record));
  EXPECT_EQ(_mock.object("/bucket/small"), "small");
  EXPECT_EQ(_mock.origin().requestCount(), 1u);
}

TEST_F(Upload, S3SameFileTwiceInSequenceAndAtOnce) {
  TestEngine engine;
  expectStored(run(engine, "/bucket/1", forServer(KOVO_SERVER_TYPE_S3)), "/bucket/1");
  expectStored(run(engine, "/bucket/1", forServer(KOVO_SERVER_TYPE_S3)), "/bucket/1");
  const std::string path = writeParts();
  std::vector<TransferRecord*> records;
  for (const char* target : {"/bucket/2", "/bucket/3", "/bucket/4"}) {
    records.push_back(&engine.upload(KOVO_HTTP_PUT, _mock.url(target), path,
                                     forServer(KOVO_SERVER_TYPE_S3), KOVO_CHUNKING_ALWAYS));
  }
  for (TransferRecord* record : records) {
    ASSERT_TRUE(engine.wait(*record));
    EXPECT_EQ(record->events().completions, 1u) << record->events().errorText;
  }
  for (const char* target : {"/bucket/2", "/bucket/3", "/bucket/4"}) {
    expectObject(target);
  }
  EXPECT_THAT(_mock.uploadIds(), SizeIs(5));
}

TEST_F(Upload, S3CompletionRefusedIn200IsAnErrorWithTheServersWords) {
  const Refusal refusal{200, {}, "<?xml?>\n<Error><Code>InternalError</Code></Error>"};
  TestEngine engine;
  refuseOnce("POST", "?uploadId=", refusal);
  const TransferEvents failed = run(engine, "/bucket/key", forServer(KOVO_SERVER_TYPE_S3));
  EXPECT_EQ(failed.errors, 1u);
  EXPECT_EQ(failed.errorCode, static_cast<uint32_t>(KOVO_ERROR_CHUNK_RETRY_FAILED));
  EXPECT_THAT(failed.errorText,
              AllOf(HasSubstr("Kovo Error Chunk failed with Error"), HasSubstr("InternalError")));

  refuseOnce("POST", "?uploadId=", refusal);
  TransferHooks hooks = forServer(KOVO_SERVER_TYPE_S3);
  hooks.retry = [](uint32_t, uint32_t) { return 1; };
  const TransferEvents retried = run(engine, "/bucket/key", hooks);
  expectStored(retried, "/bucket/key");
  ASSERT_THAT(retried.retryCalls, SizeIs(1));
  EXPECT_EQ(retried.retryCalls[0].type, static_cast<uint32_t>(KOVO_CHUNK_TYPE_FINALISE));
  EXPECT_THAT(retried.retryCalls[0].text, HasSubstr("InternalError"));
}

TEST_F(Upload, S3ControlRequestsThatFailAreErrorsWithTheServersWords) {
  struct Case {
    const char* target;
    Refusal refusal;
    uint32_t code;
    const char* words;
  };
  const Case cases[] = {
      {"?uploads", {403, {}, "<Error>AccessDenied</Error>"}, 41, "AccessDenied"},
      {"?uploads",
       {200, {}, "<Nothing accessKey=\"AK\"/>"},
       19,
       "Failed to process upload initialisation response: <Nothing accessKey=\"***\"/>"},
      {"?uploadId=", {500, {}, "<Error>Oops</Error>"}, 41, "Oops"},
      {"?uploadId=", {304, {}, ""}, 41, "304"},
  };
  TestEngine engine;
  for (const Case& each : cases) {
    refuseOnce("POST", each.target, each.refusal);
    const TransferEvents events = run(engine, "/bucket/key", forServer(KOVO_SERVER_TYPE_S3));
    EXPECT_EQ(events.completions, 0u) << each.words;
    EXPECT_EQ(events.errorCode, each.code) << each.words;
    EXPECT_THAT(events.errorText, HasSubstr(each.words));
  }
}

TEST_F(Upload, S3PartRefusedIsSentAgainOnTheClientsWord) {
  /* The refusal's own tag must not be taken for the part's. */
  refuseOnce("PUT", "partNumber=2", {503, {{"ETag", "\"wrong\""}}, "SlowDown"});
  TestEngine engine;
  TransferHooks hooks = forServer(KOVO_SERVER_TYPE_S3);
  hooks.retry = [](uint32_t, uint32_t status) { return status == 503 ? 1 : 0; };
  const TransferEvents events = run(engine, "/bucket/key", hooks);
  expectStored(events, "/bucket/key");
  EXPECT_EQ(count(_mock.origin(), "PUT", "partNumber=2&"), 2u);
  EXPECT_EQ(count(_mock.origin(), "PUT", "partNumber=1&"), 1u);

  refuseOnce("PUT", "partNumber=2", {503, {}, "SlowDown"});
  const TransferEvents failed = run(engine, "/bucket/other", forServer(KOVO_SERVER_TYPE_S3));
  EXPECT_EQ(failed.errorCode, static_cast<uint32_t>(KOVO_ERROR_CHUNK_RETRY_FAILED));
  EXPECT_EQ(_mock.object("/bucket/other"), std::nullopt);
}

TEST_F(Upload, S3PartWithoutATagNeverEndsInACompletion) {
  setIntercept([](const OriginRequest& request, Responder&) -> std::optional<Refusal> {
    if (request.target.find("partNumber=2") != std::string::npos) {
      return Refusal{200, {}, ""};
    }
    return std::nullopt;
  });
  TestEngine engine;
  const TransferEvents events = run(engine, "/bucket/key", forServer(KOVO_SERVER_TYPE_S3));
  EXPECT_EQ(events.completions, 0u);
  EXPECT_EQ(events.errorCode, static_cast<uint32_t>(KOVO_ERROR_CHUNK_RETRY_FAILED));
}

/* --- Pausing, cancelling, resuming ------------------------------------------------------------ */

TEST_F(Upload, PausedPartsGoOnWhereTheyWere) {
  const auto gate = std::make_shared<Gate>();
  setIntercept([gate](const OriginRequest& request, Responder& to) -> std::optional<Refusal> {
    if (request.target.find("partNumber=1&") != std::string::npos) {
      to.stallUntil(*gate);
    }
    return std::nullopt;
  });
  TestEngine engine;
  TransferRecord& record = start(engine, "/bucket/key", forServer(KOVO_SERVER_TYPE_S3));
  /* The other parts have gone; the pause drains in the state after the last part. */
  ASSERT_TRUE(waitUntil([this] { return _mock.storedParts().size() == 2; }, milliseconds(10000)));
  EXPECT_EQ(engine.pause(record), KOVO_ERROR_NONE);
  gate->open();
  ASSERT_TRUE(engine.waitForPause(record));
  EXPECT_EQ(count(_mock.origin(), "POST", "?uploadId="), 0u);
  EXPECT_EQ(engine.resume(record), KOVO_ERROR_NONE);
  ASSERT_TRUE(engine.wait(record));
  expectStored(record.events(), "/bucket/key");
  EXPECT_EQ(count(_mock.origin(), "PUT", "partNumber="), 3u);
}

/* Runs an upload over one connection until a part is asked to stand still, so that those before it
 * are stored and recorded, and cancels it. */
class InterruptedUpload : public Upload {
 protected:
  void interrupt(const std::string& dataHome, const std::string& target, kovo_server_type type,
                 const std::string& stalled, const std::function<bool()>& ready = {}) {
    const auto gate = std::make_shared<Gate>();
    const auto arrived = std::make_shared<Gate>();
    setIntercept([gate, arrived, stalled](const OriginRequest& request,
                                          Responder& to) -> std::optional<Refusal> {
      if (request.verb == "PUT" && request.target.find(stalled) != std::string::npos) {
        arrived->open();
        to.stallUntil(*gate);
      }
      return std::nullopt;
    });
    TestEngineOptions options;
    options.dataHome = dataHome;
    options.hardware = 2;
    TestEngine engine(options);
    TransferRecord& record = start(engine, target, forServer(type));
    ASSERT_TRUE(arrived->waitFor(milliseconds(10000)));
    if (ready) {
      ASSERT_TRUE(waitUntil(ready, milliseconds(20000)));
    }
    EXPECT_EQ(engine.cancel(record), KOVO_ERROR_NONE);
    engine.wait(record);
    EXPECT_EQ(record.events().cancellations, 1u);
    gate->open();
    setIntercept({});
  }
  TransferEvents runAgain(const std::string& dataHome, const std::string& target,
                          TransferHooks hooks) {
    TestEngineOptions options;
    options.dataHome = dataHome;
    options.config.progressInterval = 1;
    TestEngine engine(options);
    return run(engine, target, std::move(hooks));
  }
};

TEST_F(InterruptedUpload, S3ReusesTheUploadAndSendsEveryPart) {
  const TempDir home;
  interrupt(home.path().string(), "/bucket/key", KOVO_SERVER_TYPE_S3, "partNumber=3&");
  expectStored(runAgain(home.path().string(), "/bucket/key", forServer(KOVO_SERVER_TYPE_S3)),
               "/bucket/key");
  EXPECT_THAT(_mock.uploadIds(), SizeIs(1));
  EXPECT_THAT(_mock.storedParts(), testing::Contains(std::pair{1, 2}));
  /* Completed: the next one is an upload of its own. */
  expectStored(runAgain(home.path().string(), "/bucket/key", forServer(KOVO_SERVER_TYPE_S3)),
               "/bucket/key");
  EXPECT_THAT(_mock.uploadIds(), SizeIs(2));
}

TEST_F(InterruptedUpload, S3StartsAfreshWhenTheStoredUploadIsGone) {
  const TempDir home;
  interrupt(home.path().string(), "/bucket/key", KOVO_SERVER_TYPE_S3, "partNumber=3&");
  setIntercept([](const OriginRequest& request, Responder&) -> std::optional<Refusal> {
    if (request.target.find("uploadId=upload-1") != std::string::npos) {
      return Refusal{404, {}, "<Error><Code>NoSuchUpload</Code></Error>"};
    }
    return std::nullopt;
  });
  const TransferEvents failed =
      runAgain(home.path().string(), "/bucket/key", forServer(KOVO_SERVER_TYPE_S3));
  EXPECT_EQ(failed.errorCode, static_cast<uint32_t>(KOVO_ERROR_CHUNK_RETRY_FAILED));
  expectStored(runAgain(home.path().string(), "/bucket/key", forServer(KOVO_SERVER_TYPE_S3)),
               "/bucket/key");
  EXPECT_THAT(_mock.uploadIds(), SizeIs(2));
}

TEST_F(InterruptedUpload, AnotherUrlOrAChangedFileStartsAfresh) {
  const TempDir home;
  interrupt(home.path().string(), "/bucket/key", KOVO_SERVER_TYPE_S3, "partNumber=3&");
  expectStored(runAgain(home.path().string(), "/bucket/other", forServer(KOVO_SERVER_TYPE_S3)),
               "/bucket/other");
  EXPECT_THAT(_mock.uploadIds(), SizeIs(2));

  interrupt(home.path().string(), "/bucket/key", KOVO_SERVER_TYPE_S3, "partNumber=3&");
  EXPECT_THAT(_mock.uploadIds(), SizeIs(3));
  const std::string path = writeParts();
  const time_t later = ::time(nullptr) + 100;
  const utimbuf times{later, later};
  ASSERT_EQ(::utime(path.c_str(), &times), 0);
  TestEngineOptions options;
  options.dataHome = home.path().string();
  TestEngine engine(options);
  TransferRecord& record = engine.upload(KOVO_HTTP_PUT, _mock.url("/bucket/key"), path,
                                         forServer(KOVO_SERVER_TYPE_S3), KOVO_CHUNKING_ALWAYS);
  ASSERT_TRUE(engine.wait(record));
  expectStored(record.events(), "/bucket/key");
  EXPECT_THAT(_mock.uploadIds(), SizeIs(4));
}

TEST_F(InterruptedUpload, SyncServiceSkipsStoredPartsAndReportsAllOfThem) {
  for (const char* provider : {"aws", "azure"}) {
    const TempDir home;
    _mock.setProvider(provider);
    const std::string target = std::string("/assets/") + provider;
    const std::string third = std::string(provider) == "aws" ? "partNumber=3&" : "Mw==";
    const size_t before = count(_mock.origin(), "PUT", "/bucket/key");
    interrupt(home.path().string(), target, KOVO_SERVER_TYPE_SYNC_SERVICE, third);
    const TransferEvents events =
        runAgain(home.path().string(), target, forServer(KOVO_SERVER_TYPE_SYNC_SERVICE));
    expectStored(events, target);
    EXPECT_EQ(count(_mock.origin(), "PUT", "/bucket/key") - before, 4u) << "part 3 twice";
    EXPECT_GE(events.progress.back().first, 10 * kMiB) << "skipped parts count";
    EXPECT_LE(events.progress.back().first, kThreeParts.size());
  }
}

TEST_F(InterruptedUpload, SyncServiceOnlyReportsPartsThatAreAllStored) {
  /* The rows of a process that died while its finalisation was on the way. */
  const TempDir home;
  const TempDir leftBehind;
  const auto gate = std::make_shared<Gate>();
  const auto arrived = std::make_shared<Gate>();
  setIntercept(
      [gate, arrived](const OriginRequest& request, Responder& to) -> std::optional<Refusal> {
        if (request.target.find("/finalise/") != std::string::npos && !gate->isOpen()) {
          arrived->open();
          to.stallUntil(*gate);
          return Refusal{500, {}, ""};
        }
        return std::nullopt;
      });
  {
    TestEngineOptions options;
    options.dataHome = home.path().string();
    TestEngine engine(options);
    TransferRecord& record = start(engine, "/assets/key", forServer(KOVO_SERVER_TYPE_SYNC_SERVICE));
    ASSERT_TRUE(arrived->waitFor(milliseconds(10000)));
    std::filesystem::copy(home.path(), leftBehind.path(), std::filesystem::copy_options::recursive);
    gate->open();
    ASSERT_TRUE(engine.wait(record));
  }
  EXPECT_EQ(count(_mock.origin(), "PUT", "partNumber="), 3u);
  expectStored(
      runAgain(leftBehind.path().string(), "/assets/key", forServer(KOVO_SERVER_TYPE_SYNC_SERVICE)),
      "/assets/key");
  EXPECT_EQ(count(_mock.origin(), "PUT", "partNumber="), 3u);
  EXPECT_THAT(_mock.uploadIds(), SizeIs(1));
}

TEST_F(Upload, SameFileFromTwoEnginesOverOneDatabaseNeverMixes) {
  const TempDir home;
  TestEngineOptions options;
  options.dataHome = home.path().string();
  TestEngine first(options);
  TestEngine second(options);
  const auto arrived = std::make_shared<Gate>();
  const auto gate = std::make_shared<Gate>();
  /* The first upload has recorded parts and stands still while the second one runs. */
  setIntercept(
      [gate, arrived](const OriginRequest& request, Responder& to) -> std::optional<Refusal> {
        if (request.target.find("partNumber=3&uploadId=upload-1") != std::string::npos) {
          arrived->open();
          to.stallUntil(*gate);
        }
        return std::nullopt;
      });
  TransferRecord& one = start(first, "/assets/1", forServer(KOVO_SERVER_TYPE_SYNC_SERVICE));
  ASSERT_TRUE(arrived->waitFor(milliseconds(10000)));
  expectStored(run(second, "/assets/2", forServer(KOVO_SERVER_TYPE_SYNC_SERVICE)), "/assets/2");
  gate->open();
  ASSERT_TRUE(first.wait(one));
  expectStored(one.events(), "/assets/1");
}

TEST_F(InterruptedUpload, S3RemembersALargeFileWhoseChecksumIsTakenWhileItIsSent) {
  const Resource large(32, 66 * kMiB);
  _content = &large;
  const TempDir home;
  /* The initialisation's answer is in the database: the checksum has been taken. */
  const auto isRemembered = [&home] {
    for (const auto& entry : std::filesystem::recursive_directory_iterator(home.path())) {
      if (entry.path().filename().string().find("sqliteResumeTransfer") == std::string::npos)
        continue;
      std::ifstream file(entry.path(), std::ios::binary);
      const std::string bytes{std::istreambuf_iterator<char>(file), {}};
      if (bytes.find("<UploadId>upload-1") != std::string::npos) return true;
    }
    return false;
  };
  interrupt(home.path().string(), "/bucket/large", KOVO_SERVER_TYPE_S3, "partNumber=2&",
            isRemembered);
  const TransferEvents events =
      runAgain(home.path().string(), "/bucket/large", forServer(KOVO_SERVER_TYPE_S3));
  expectStored(events, "/bucket/large");
  EXPECT_THAT(_mock.uploadIds(), SizeIs(1));
  expectStored(runAgain(home.path().string(), "/bucket/large", forServer(KOVO_SERVER_TYPE_S3)),
               "/bucket/large");
}

/* --- The file changes ------------------------------------------------------------------------- */

TEST_F(Upload, ChangedFileIsAnErrorInEveryPhase) {
  struct Case {
    const char* verb;
    const char* target;
    kovo_server_type type;
    bool cutShort;
  };
  /* What is changed is noticed by the request it is changed under, or by the one after. */
  const Case cases[] = {
      {"POST", "?uploads", KOVO_SERVER_TYPE_S3, true},
      {"PUT", "partNumber=1&", KOVO_SERVER_TYPE_S3, false},
      {"PUT", "/plain", KOVO_SERVER_TYPE_DEFAULT, false},
      {"PUT", "/assets/small", KOVO_SERVER_TYPE_SYNC_SERVICE, false},
  };
  TestEngine engine;
  for (const Case& each : cases) {
    const bool small = std::string(each.target) == "/assets/small";
    const std::string path = writeParts();
    if (small) writeFile(path, "small");
    setIntercept([each, path](const OriginRequest& request, Responder&) -> std::optional<Refusal> {
      if (request.verb == each.verb && request.target.find(each.target) != std::string::npos) {
        std::filesystem::resize_file(path, each.cutShort ? 100 : 12 * kMiB);
      }
      return std::nullopt;
    });
    const std::string target = each.type == KOVO_SERVER_TYPE_S3 ? "/bucket/key" : each.target;
    TransferRecord& record = engine.upload(KOVO_HTTP_PUT, _mock.url(target), path,
                                           forServer(each.type), KOVO_CHUNKING_ALWAYS);
    ASSERT_TRUE(engine.wait(record));
    EXPECT_EQ(record.events().errorCode, static_cast<uint32_t>(KOVO_ERROR_FILE_MODIFIED))
        << each.target << record.events().errorText;
    EXPECT_THAT(record.events().errorText,
                HasSubstr("Detected a file modification during upload: " + path));
  }
  EXPECT_EQ(count(_mock.origin(), "POST", "?uploadId="), 0u);
}

/* --- Sync service ----------------------------------------------------------------------------- */

TEST_F(Upload, SyncServiceTakesASmallFileWhole) {
  const std::string path = _folder.file("small");
  writeFile(path, std::string(5242880, 's'));
  TestEngine engine;
  TransferHooks hooks = forServer(KOVO_SERVER_TYPE_SYNC_SERVICE);
  hooks.requestHeaders = {{"Content-MD5", "given=="}};
  TransferRecord& record =
      engine.upload(KOVO_HTTP_PUT, _mock.url("/assets/small"), path, std::move(hooks));
  ASSERT_TRUE(engine.wait(record));
  EXPECT_EQ(record.events().completions, 1u) << record.events().errorText;
  EXPECT_EQ(_mock.object("/assets/small")->size(), 5242880u);
  ASSERT_EQ(_mock.origin().requestCount(), 1u);
  EXPECT_EQ(_mock.origin().requests()[0].header("Content-MD5"), "given==");
}

TEST_F(Upload, SyncServiceSendsPartsToTheProvider) {
  TestEngine engine;
  for (const char* provider : {"aws", "azure"}) {
    _mock.setProvider(provider);
    const std::string target = std::string("/assets/") + provider;
    const TransferEvents events = run(engine, target, forServer(KOVO_SERVER_TYPE_SYNC_SERVICE));
    expectStored(events, target);
    EXPECT_THAT(_mock.document(), HasSubstr("\"contentLength\":11534341}"));
  }
}

TEST_F(Upload, SyncServiceTakesABodyFromMemoryInOnePart) {
  TestEngine engine;
  TransferHooks hooks = forServer(KOVO_SERVER_TYPE_SYNC_SERVICE);
  hooks.requestBody = std::string(6 * kMiB, 'm');
  hooks.requestHeaders = {{"Content-MD5", md5Base64(hooks.requestBody)}};
  TransferRecord& record =
      engine.uploadFromMemory(KOVO_HTTP_PUT, _mock.url("/assets/memory"), hooks);
  ASSERT_TRUE(engine.wait(record));
  EXPECT_EQ(record.events().completions, 1u) << record.events().errorText;
  EXPECT_EQ(_mock.object("/assets/memory"), hooks.requestBody);
  EXPECT_EQ(count(_mock.origin(), "PUT", "partNumber="), 1u);
}

TEST_F(Upload, SyncServiceDocumentListsEveryPartAfterARefusal) {
  refuseOnce("PUT", "partNumber=3&", {503, {}, "later"});
  TestEngineOptions options;
  options.hardware = 2; /* one connection: parts 1 and 2 are stored before the third is refused */
  TestEngine engine(options);
  TransferHooks hooks = forServer(KOVO_SERVER_TYPE_SYNC_SERVICE);
  hooks.retry = [](uint32_t, uint32_t) { return 1; };
  expectStored(run(engine, "/assets/key", hooks), "/assets/key");
  EXPECT_EQ(count(_mock.origin(), "PUT", "partNumber="), 4u);
}

TEST_F(Upload, SyncServiceWholeFileTooLargeGoesOnInParts) {
  const std::string path = _folder.file("small");
  writeFile(path, std::string(3 * kMiB, 's'));
  setIntercept([this](const OriginRequest& request, Responder&) -> std::optional<Refusal> {
    if (request.target == "/assets/small") {
      return Refusal{413, {}, _plan};
    }
    return std::nullopt;
  });
  _plan = R"({"cloudProvider":"azure","_links":{"multipart":{"href":")" + _mock.url("/b/k") +
          R"("},"finalize":{"href":")" + _mock.url("/done") + R"("}},"azure":{"token":")" +
          StorageMock::kSasToken + R"(","bucketName":"b","objectId":"k"}})";
  TestEngine engine;
  TransferRecord& record = engine.upload(KOVO_HTTP_PUT, _mock.url("/assets/small"), path,
                                         forServer(KOVO_SERVER_TYPE_SYNC_SERVICE));
  ASSERT_TRUE(engine.wait(record));
  EXPECT_EQ(record.events().completions, 1u) << record.events().errorText;
  EXPECT_THAT(*_mock.object("/done"), HasSubstr("\"contentLength\":3145728}"));
}

TEST_F(Upload, SyncServiceAnswersThatAreNoPlanFailWithoutTellingSecrets) {
  TestEngine engine;
  const std::vector<std::function<std::string(std::string)>> filters = {
      [](const std::string&) { return std::string("<html>"); },
      [](std::string text) { return text.substr(0, text.size() / 2); },
      [](std::string text) { return text.replace(text.find("\"uploadId\""), 10, "\"other\""); },
      [](const std::string&) { return std::string(1000000, '{'); },
  };
  for (const auto& filter : filters) {
    _mock.setPlanFilter(filter);
    const TransferEvents events =
        run(engine, "/assets/key", forServer(KOVO_SERVER_TYPE_SYNC_SERVICE));
    EXPECT_EQ(events.errorCode, static_cast<uint32_t>(KOVO_ERROR_OPERATION_ERROR));
    EXPECT_THAT(
        events.errorText,
        AllOf(HasSubstr("Failed to process upload initialisation response: "),
              Not(HasSubstr(StorageMock::kSecretKey)), Not(HasSubstr(StorageMock::kSessionToken))));
  }
}

TEST_F(Upload, SyncServiceFinalisationRefusedIsAnError) {
  refuseOnce("PUT", "/finalise/", {409, {}, "segments missing"});
  TestEngine engine;
  const TransferEvents events =
      run(engine, "/assets/key", forServer(KOVO_SERVER_TYPE_SYNC_SERVICE));
  EXPECT_EQ(events.errorCode, static_cast<uint32_t>(KOVO_ERROR_CHUNK_RETRY_FAILED));
  EXPECT_THAT(events.errorText, HasSubstr("segments missing"));
}

}  // namespace
}  // namespace kovo::test
