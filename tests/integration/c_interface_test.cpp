#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <functional>
#include <mutex>
#include <set>
#include <sstream>
#include <stdexcept>

#include "integration/c_interface.h"
#include "integration/small_chunks.h"
#include "support/child_process.h"
#include "support/serve_resource.h"
#include "support/wait_until.h"

namespace kovo::test {
namespace {

using std::chrono::milliseconds;

TEST(CInterface, CompilesAndRunsFromC) {
  const TempDir folder;
  ::setenv("XDG_DATA_HOME", folder.path().c_str(), 1);
  EXPECT_STREQ(checkInterfaceFromC(), nullptr);
}

TEST(CInterface, ExportsItsFunctionsAndNothingElse) {
  const std::set<std::string> expected{"kovoCreate",
                                       "kovoDestroy",
                                       "kovoRegisterResponseBodyCallback",
                                       "kovoRegisterErrorCallback",
                                       "kovoRegisterRequestBodyCallback",
                                       "kovoRegisterCompletionCallback",
                                       "kovoRegisterStatusLineCallback",
                                       "kovoRegisterCancellationCallback",
                                       "kovoRegisterPausedCallback",
                                       "kovoRegisterProgressCallback",
                                       "kovoRegisterMonitorCallback",
                                       "kovoRegisterAddHeaderCallback",
                                       "kovoRegisterAddParametersCallback",
                                       "kovoRegisterResponseHeaderCallback",
                                       "kovoRegisterSSLCertificatePolicyCallback",
                                       "kovoRegisterSetTimeoutCallback",
                                       "kovoRegisterAddChunkHeaderCallback",
                                       "kovoRegisterChunkErrorRetryCallback",
                                       "kovoRegisterSetServerTypeCallback",
                                       "kovoRegisterLoggingCallback",
                                       "kovoDownload",
                                       "kovoDownloadWithSize",
                                       "kovoDownloadToMemory",
                                       "kovoDownloadRangeToMemory",
                                       "kovoUpload",
                                       "kovoUploadFromMemory",
                                       "kovoSendRequest",
                                       "kovoCancel",
                                       "kovoPause",
                                       "kovoResume",
                                       "kovoSetMultipartUploadThreshold",
                                       "kovoSetSystemProxyCredentials",
                                       "kovoSetTargetDataRates",
                                       "kovoSetWorkerPoolUpperLimit",
                                       "kovoClearCache",
                                       "kovoSetLogLevel",
                                       "kovoErrorString",
                                       "kovoHTTPStatusString",
                                       "kovoVersion",
                                       "kovoSetHardwareConcurrency",
                                       "kovoSetS3Endpoint"};
  const TempDir folder;
  const std::string list = folder.file("symbols");
  ChildProcess::run({"nm", "-D", "--defined-only", KOVO_LIBRARY_FILE}, list);
  std::set<std::string> exported;
  std::istringstream lines(readFile(list));
  for (std::string line; std::getline(lines, line);) {
    std::istringstream fields(line);
    std::string address;
    std::string kind;
    std::string name;
    fields >> address >> kind >> name;
    /* The version's own name is absolute. Sanitizers add weak helpers of theirs. */
    if (kind == "A") continue;
    exported.insert(name.substr(0, name.find('@')));
  }
  for (const std::string& name : expected) EXPECT_EQ(exported.count(name), 1u) << name;
  for (const std::string& name : exported) {
    EXPECT_EQ(name.compare(0, 4, "kovo"), 0) << name;
  }
}

TEST(CInterface, TextsOfErrorsStatusesAndTheVersion) {
  const std::pair<kovo_error, const char*> errors[] = {
      {0, "Success"},
      {1, "Unknown Error"},
      {2, "KOVO Instance Not Initialised"},
      {3, "KOVO Instance Released"},
      {4, "Invalid Parameters"},
      {5, "Cancelled"},
      {6, "Not Implemented"},
      {7, "Download Failed"},
      {8, "Invalid HTTP Verb"},
      {9, "Upload Failed to Read File"},
      {10, "Write Stream Failure"},
      {11, "Read Stream Failure"},
      {12, "Invalid Endpoint"},
      {13, "Invalid Byte Range Requested"},
      {14, "Could Not Create Request Stream"},
      {15, "No URL For Request"},
      {16, "Invalid Output File"},
      {17, "No Request Body Callback Registered"},
      {18, "Invalid Input File"},
      {19, "KOVO Operation Error"},
      {20, "Proxy Error"},
      {21, "Unknown (Untrusted) Server Certificate"},
      {22, "No Completion Callback Registered"},
      {23, "No Error Callback Registered"},
      {24, "No Cancellation Callback Registered"},
      {25, "No Response Body Callback Registered"},
      {26, "No Content Length Callback Registered"},
      {27, "Not Enough Data"},
      {28, "Too much Data"},
      {29, "Timeout"},
      {30, "Unrecognised kovo_error"},
      {31, "Unrecognised kovo_error"},
      {32, "Network Error"},
      {33, "Insufficient disk space"},
      {34, "File was locked"},
      {35, "Invalid file name"},
      {36, "File not found"},
      {37, "Parent folder does not exist"},
      {38, "Unrecognised kovo_error"},
      {39, "Unrecognised kovo_error"},
      {40, "Chunk failed with HTTP error"},
      {41, "Chunk retry failed with error"},
      {42, "No StatusLine Callback Registered"},
      {43, "Unrecognised kovo_error"},
      {99'999, "Unrecognised kovo_error"},
      {100'000, "Platform Status"},
      {112'007, "Platform Status"},
      {0x7fffffff, "Platform Status"},
      {0x80000000, "Unrecognised kovo_error"},
      {0xffffffff, "Unrecognised kovo_error"}};
  for (const auto& [code, text] : errors) EXPECT_STREQ(kovoErrorString(code), text) << code;
  const std::pair<int32_t, const char*> statuses[] = {
      {-200, "Unrecognised kovo_http_status"}, {0, "Unrecognised kovo_http_status"},
      {199, "Unrecognised kovo_http_status"},  {200, "HTTP Status 2xx (Success)"},
      {299, "HTTP Status 2xx (Success)"},      {300, "HTTP Status 3xx (Redirection)"},
      {399, "HTTP Status 3xx (Redirection)"},  {400, "HTTP Status 4xx (Client Error)"},
      {499, "HTTP Status 4xx (Client Error)"}, {500, "HTTP Status 5xx (Server Error)"},
      {599, "HTTP Status 5xx (Server Error)"}, {600, "Unrecognised kovo_http_status"}};
  for (const auto& [status, text] : statuses) {
    EXPECT_STREQ(kovoHTTPStatusString(status), text) << status;
  }
  EXPECT_STREQ(kovoVersion(), "1.3.0.000");
}

TEST(CInterface, NullInstanceIsNotInitialised) {
  kovo_async_token token = 5;
  const auto started = [&token](kovo_error result) {
    EXPECT_EQ(result, KOVO_ERROR_INSTANCE_NOT_INITIALISED);
    EXPECT_EQ(token, NOTHING_ASYNC_TOKEN);
    token = 5;
  };
  started(kovoDownload(nullptr, "http://x/", "out", 0, 0, nullptr, &token));
  started(kovoDownloadWithSize(nullptr, "http://x/", "out", 0, 0, 1, nullptr, &token));
  started(kovoDownloadToMemory(nullptr, "http://x/", 0, 0, nullptr, &token));
  started(kovoDownloadRangeToMemory(nullptr, "http://x/", 0, 0, 0, 0, nullptr, &token));
  started(kovoUpload(nullptr, KOVO_HTTP_PUT, "http://x/", "in", 0, 0, nullptr, &token));
  started(kovoUploadFromMemory(nullptr, KOVO_HTTP_PUT, "http://x/", 0, nullptr, &token));
  started(kovoSendRequest(nullptr, KOVO_HTTP_GET, "http://x/", 0, 0, nullptr, &token));
  started(kovoResume(nullptr, 1, nullptr, &token));
  const kovo_error results[] = {kovoCancel(nullptr, 1),
                                kovoPause(nullptr, 1),
                                kovoSetSystemProxyCredentials(nullptr, "u", "p"),
                                kovoSetTargetDataRates(nullptr, 0, 0),
                                kovoSetWorkerPoolUpperLimit(nullptr, 4),
                                kovoRegisterResponseBodyCallback(nullptr, nullptr),
                                kovoRegisterErrorCallback(nullptr, nullptr),
                                kovoRegisterRequestBodyCallback(nullptr, nullptr, nullptr),
                                kovoRegisterCompletionCallback(nullptr, nullptr),
                                kovoRegisterStatusLineCallback(nullptr, nullptr),
                                kovoRegisterCancellationCallback(nullptr, nullptr),
                                kovoRegisterPausedCallback(nullptr, nullptr),
                                kovoRegisterProgressCallback(nullptr, nullptr),
                                kovoRegisterMonitorCallback(nullptr, nullptr),
                                kovoRegisterAddHeaderCallback(nullptr, nullptr),
                                kovoRegisterAddParametersCallback(nullptr, nullptr),
                                kovoRegisterResponseHeaderCallback(nullptr, nullptr),
                                kovoRegisterSSLCertificatePolicyCallback(nullptr, nullptr),
                                kovoRegisterSetTimeoutCallback(nullptr, nullptr),
                                kovoRegisterAddChunkHeaderCallback(nullptr, nullptr),
                                kovoRegisterChunkErrorRetryCallback(nullptr, nullptr),
                                kovoRegisterSetServerTypeCallback(nullptr, nullptr)};
  for (const kovo_error result : results) EXPECT_EQ(result, KOVO_ERROR_INSTANCE_NOT_INITIALISED);
  kovoClearCache(nullptr);
  kovoSetMultipartUploadThreshold(nullptr, 1);
  kovo_instance none = nullptr;
  EXPECT_EQ(kovoDestroy(&none), KOVO_ERROR_INSTANCE_RELEASED);
  EXPECT_EQ(kovoRegisterLoggingCallback(nullptr, nullptr), KOVO_ERROR_NONE);
}

/* The first failing check decides, in this order. */
TEST(CInterface, StartChecksComeInTheirOrder) {
  TestEngine engine;
  const kovo_instance instance = engine.instance();
  kovo_async_token token = NOTHING_ASYNC_TOKEN;
  const auto download = [&](const char* url, const char* path, kovo_chunking_mode mode) {
    token = 5;
    const kovo_error result = kovoDownload(instance, url, path, mode, 0, nullptr, &token);
    EXPECT_EQ(token, NOTHING_ASYNC_TOKEN);
    return result;
  };
  const auto toMemory = [&](const char* url, kovo_chunking_mode mode) {
    token = 5;
    const kovo_error result = kovoDownloadToMemory(instance, url, mode, 0, nullptr, &token);
    EXPECT_EQ(token, NOTHING_ASYNC_TOKEN);
    return result;
  };
  const auto upload = [&](kovo_http_verb verb, const char* url, const char* path) {
    token = 5;
    const kovo_error result = kovoUpload(instance, verb, url, path, 0, 0, nullptr, &token);
    EXPECT_EQ(token, NOTHING_ASYNC_TOKEN);
    return result;
  };
  const auto uploadMemory = [&](kovo_http_verb verb, const char* url) {
    token = 5;
    const kovo_error result = kovoUploadFromMemory(instance, verb, url, 0, nullptr, &token);
    EXPECT_EQ(token, NOTHING_ASYNC_TOKEN);
    return result;
  };
  const auto send = [&](const char* url) {
    token = 5;
    const kovo_error result = kovoSendRequest(instance, 2, url, 0, 0, nullptr, &token);
    EXPECT_EQ(token, NOTHING_ASYNC_TOKEN);
    return result;
  };
  const char* const url = "http://127.0.0.1:1/";

  kovoRegisterCompletionCallback(instance, nullptr);
  kovoRegisterStatusLineCallback(instance, nullptr);
  kovoRegisterErrorCallback(instance, nullptr);
  kovoRegisterCancellationCallback(instance, nullptr);
  kovoRegisterResponseBodyCallback(instance, nullptr);
  kovoRegisterRequestBodyCallback(instance, nullptr, nullptr);
  EXPECT_EQ(download(nullptr, "", 7), KOVO_ERROR_NO_URL);
  EXPECT_EQ(download("", "", 7), KOVO_ERROR_NO_URL);
  EXPECT_EQ(download(url, "", 3), KOVO_ERROR_INVALID_PARAMETERS);
  EXPECT_EQ(toMemory(url, 3), KOVO_ERROR_INVALID_PARAMETERS);
  EXPECT_EQ(upload(KOVO_HTTP_GET, "", ""), KOVO_ERROR_INVALID_HTTP_VERB);
  EXPECT_EQ(upload(7, "", ""), KOVO_ERROR_INVALID_HTTP_VERB);
  EXPECT_EQ(uploadMemory(KOVO_HTTP_DELETE, ""), KOVO_ERROR_INVALID_HTTP_VERB);
  EXPECT_EQ(upload(KOVO_HTTP_PATCH, nullptr, ""), KOVO_ERROR_NO_URL);
  EXPECT_EQ(uploadMemory(KOVO_HTTP_POST, ""), KOVO_ERROR_NO_URL);
  EXPECT_EQ(send(nullptr), KOVO_ERROR_NO_URL);

  const auto all = [&](kovo_error expected) {
    EXPECT_EQ(download(url, "", -1), expected);
    EXPECT_EQ(toMemory(url, 0), expected);
    EXPECT_EQ(upload(KOVO_HTTP_PUT, url, ""), expected);
    EXPECT_EQ(uploadMemory(KOVO_HTTP_PUT, url), expected);
    EXPECT_EQ(send(url), expected);
  };
  all(KOVO_ERROR_NO_COMPLETION_CALLBACK);
  kovoRegisterCompletionCallback(instance, [](kovo_instance, void*) {});
  all(KOVO_ERROR_NO_STATUS_LINE_CALLBACK);
  kovoRegisterStatusLineCallback(instance,
                                 [](kovo_instance, const char*, uint32_t, const char*, void*) {});
  all(KOVO_ERROR_NO_ERROR_CALLBACK);
  kovoRegisterErrorCallback(instance, [](kovo_instance, uint32_t, const char*, void*) {});
  all(KOVO_ERROR_NO_CANCELLATION_CALLBACK);
  kovoRegisterCancellationCallback(instance, [](kovo_instance, void*) {});
  EXPECT_EQ(download(url, nullptr, 0), KOVO_ERROR_INVALID_OUTPUT_FILE);
  EXPECT_EQ(download(url, "", 0), KOVO_ERROR_INVALID_OUTPUT_FILE);
  EXPECT_EQ(toMemory(url, 0), KOVO_ERROR_NO_RESPONSE_BODY_CALLBACK);
  EXPECT_EQ(upload(KOVO_HTTP_PUT, url, nullptr), KOVO_ERROR_INVALID_INPUT_FILE);
  EXPECT_EQ(uploadMemory(KOVO_HTTP_PUT, url), KOVO_ERROR_NO_REQUEST_BODY_CALLBACK);
  kovoRegisterRequestBodyCallback(
      instance,
      [](kovo_instance, uint64_t, uint8_t*, uint64_t* bytesRead, uint64_t, void*) {
        *bytesRead = 0;
      },
      nullptr);
  EXPECT_EQ(uploadMemory(KOVO_HTTP_PUT, url), KOVO_ERROR_NO_CONTENT_LENGTH_CALLBACK);
}

TEST(CInterface, ControlAndSettingsResults) {
  TestEngine engine;
  const kovo_instance instance = engine.instance();
  kovo_async_token token = 5;
  EXPECT_EQ(kovoCancel(instance, 77), KOVO_ERROR_INVALID_PARAMETERS);
  EXPECT_EQ(kovoPause(instance, 77), KOVO_ERROR_INVALID_PARAMETERS);
  EXPECT_EQ(kovoResume(instance, 77, nullptr, &token), KOVO_ERROR_RESUME_FAILED);
  EXPECT_EQ(token, NOTHING_ASYNC_TOKEN);
  EXPECT_EQ(kovoCancel(instance, NOTHING_ASYNC_TOKEN), KOVO_ERROR_INVALID_PARAMETERS);
  EXPECT_EQ(kovoSetWorkerPoolUpperLimit(instance, 1), KOVO_ERROR_INVALID_PARAMETERS);
  EXPECT_EQ(kovoSetWorkerPoolUpperLimit(instance, 2), KOVO_ERROR_NONE);
  EXPECT_EQ(kovoSetWorkerPoolUpperLimit(instance, 100), KOVO_ERROR_NONE);
  EXPECT_EQ(kovoSetSystemProxyCredentials(instance, "", "x"), KOVO_ERROR_INVALID_PARAMETERS);
  EXPECT_EQ(kovoSetSystemProxyCredentials(instance, "user", ""), KOVO_ERROR_NONE);
  EXPECT_EQ(kovoSetTargetDataRates(instance, 0, 0), KOVO_ERROR_NONE);
  kovoSetMultipartUploadThreshold(instance, 5);
  kovoClearCache(instance);
}

TEST(CInterface, TokensCountUpFromOne) {
  FaultOrigin origin(serveResource(Resource(1, 10)));
  TestEngine engine;
  for (kovo_async_token expected = 1; expected <= 3; ++expected) {
    EXPECT_EQ(engine.downloadToMemory(origin.url()).token, expected);
  }
}

/* Seen from outside: the ranges a download asks for. */
TEST(Configuration, ChunkSizeOutsideItsRangeKeepsTheDefault) {
  constexpr uint64_t kDefault = 2 * 1024 * 1024;
  struct Case {
    uint64_t given;
    uint64_t expected;
  };
  const Resource resource(2, kDefault + 1);
  for (const Case& c :
       {Case{0, kDefault}, Case{kDefault - 5, kDefault - 5}, Case{52'428'800, 52'428'800},
        Case{52'428'801, kDefault}, Case{~uint64_t{0}, kDefault}}) {
    FaultOrigin origin(serveResource(resource));
    TestEngineOptions options;
    options.config.chunkSize = c.given;
    TestEngine engine(options);
    const TransferRecord& record = engine.download(origin.url(), engine.file("out"));
    ASSERT_TRUE(engine.wait(record));
    EXPECT_EQ(origin.requests().at(0).header("Range"), "bytes=0-" + std::to_string(c.expected - 1));
  }
}

TEST(Configuration, FlagsAreSetByOneOnlyAndNullMeansDefaults) {
  const Resource resource(3, 3 * kChunk);
  for (const uint32_t flag : {0u, 1u, 2u, ~0u}) {
    FaultOrigin origin(serveResource(resource));
    TestEngineOptions options = smallChunks();
    options.config.chunkDownloads = flag;
    TestEngine engine(options);
    ASSERT_TRUE(engine.wait(engine.download(origin.url(), engine.file("out"))));
    EXPECT_EQ(origin.requestCount() > 1, flag == 1) << flag;
    EXPECT_EQ(resource.differenceTo(engine.file("out")), "");
  }
  const TempDir folder;
  ::setenv("XDG_DATA_HOME", folder.path().c_str(), 1);
  kovo_instance instance = kovoCreate(nullptr);
  ASSERT_NE(instance, nullptr);
  EXPECT_EQ(kovoDestroy(&instance), KOVO_ERROR_NONE);
}

TEST(Configuration, AnEngineWithoutADataDirectoryStillDownloads) {
  const TempDir folder;
  writeFile(folder.file("not-a-folder"), "");
  TestEngineOptions options = smallChunks();
  options.dataHome = folder.file("not-a-folder/below");
  const Resource resource(4, 3 * kChunk);
  FaultOrigin origin(serveResource(resource));
  const auto before = std::filesystem::current_path();
  std::filesystem::current_path(folder.path());
  uint32_t messages = 0;
  {
    TestEngine engine(options);
    ASSERT_TRUE(engine.wait(engine.download(origin.url(), engine.file("out"))));
    EXPECT_EQ(resource.differenceTo(engine.file("out")), "");
    kovoRegisterLoggingCallback([](uint32_t, const char*, const char*, const char*, uint32_t,
                                   void* context) { ++*static_cast<uint32_t*>(context); },
                                &messages);
  }
  const uint32_t messagesBefore = messages;
  TestEngine later(options);
  EXPECT_EQ(messages, messagesBefore) << "the last engine took the logging callback with it";
  std::filesystem::current_path(before);
  for (const auto& entry : std::filesystem::directory_iterator(folder.path())) {
    EXPECT_NE(entry.path().extension(), ".log") << "a log file in the working directory";
  }
}

TEST(Monitor, RecordsHaveTheirLayout) {
  const Resource resource(5, 40 * kChunk);
  FaultOrigin origin(serveResource(resource));
  for (const uint32_t adaptive : {0u, 1u}) {
    TestEngineOptions options = smallChunksUncached();
    options.config.adaptiveStrategy = adaptive;
    options.config.progressInterval = 1;
    TestEngine engine(options);
    ASSERT_TRUE(engine.wait(engine.download(origin.url(), engine.file("out"))));
    const std::vector<TestEngine::MonitorRecord> records = engine.monitorRecords();
    ASSERT_FALSE(records.empty());
    for (const TestEngine::MonitorRecord& record : records) {
      EXPECT_EQ(record.type, adaptive == 1 ? 1u : 2u);
      ASSERT_EQ(record.data.size(), adaptive == 1 ? 56u : 48u);
      const auto word = [&record](size_t at, size_t width) {
        uint64_t value = 0;
        for (size_t i = 0; i < width; ++i) {
          value |= static_cast<uint64_t>(static_cast<uint8_t>(record.data[at + i])) << (8 * i);
        }
        return value;
      };
      EXPECT_EQ(word(0, 8), word(8, 8) + word(16, 8));
      EXPECT_LE(word(24, 4), 1u);
      EXPECT_LE(word(28, 4), 16u);
      EXPECT_GE(word(32, 4), 1u);
      if (adaptive == 0) {
        EXPECT_EQ(word(32, 4), 16u);
        EXPECT_EQ(word(36, 8) | word(40, 8), 0u);
      } else {
        EXPECT_EQ(word(36, 4) | word(40, 8), 0u);
        EXPECT_TRUE(word(48, 4) == 7 || word(48, 4) == 6 || word(48, 4) <= 3) << word(48, 4);
      }
    }
  }
  TestEngineOptions silent = smallChunks();
  silent.config.progressInterval = 0;
  TestEngine engine(silent);
  const TransferRecord& record = engine.download(origin.url(), engine.file("out"));
  ASSERT_TRUE(engine.wait(record));
  EXPECT_TRUE(engine.monitorRecords().empty());
  EXPECT_TRUE(record.events().progress.empty());
}

TEST(Logging, GoesToTheCallbackOrToTheFile) {
  struct Log {
    std::mutex mutex;
    std::vector<std::pair<uint32_t, std::string>> lines;
    std::set<std::string> functions;
  } log;
  FaultOrigin origin([](const OriginRequest&, Responder& to) { to.respond(404); });
  TestEngine engine(smallChunks());
  kovoRegisterLoggingCallback(
      [](uint32_t level, const char* message, const char* function, const char* file, uint32_t line,
         void* context) {
        Log& to = *static_cast<Log*>(context);
        const std::lock_guard lock(to.mutex);
        to.lines.emplace_back(level, message);
        to.functions.insert(function);
        if (file == nullptr || line == 0) to.functions.insert("no position");
      },
      &log);
  kovoSetLogLevel(KOVO_LOG_TRACE);
  const TransferRecord& failed = engine.download(origin.url(), engine.file("a"), {}, 2);
  EXPECT_TRUE(engine.wait(failed));
  kovoSetLogLevel(KOVO_LOG_WARN);
  kovoRegisterLoggingCallback(nullptr, nullptr);
  {
    const std::lock_guard lock(log.mutex);
    EXPECT_FALSE(log.lines.empty());
    EXPECT_EQ(log.functions.count("no position"), 0u);
    bool told = false;
    for (const auto& [level, message] : log.lines) {
      EXPECT_LE(level, static_cast<uint32_t>(KOVO_LOG_TRACE));
      if (message.find("Request Failed. ErrorCode: 41") == 0) {
        told = level == KOVO_LOG_WARN;
      }
    }
    EXPECT_TRUE(told);
    log.lines.clear();
  }
  EXPECT_TRUE(engine.wait(engine.download(origin.url(), engine.file("a"), {}, 2)));
  const std::lock_guard lock(log.mutex);
  EXPECT_TRUE(log.lines.empty());
  bool written = false;
  for (const auto& entry : std::filesystem::directory_iterator(engine.dataHome() + "/Orvel/KOVO")) {
    const std::string name = entry.path().filename().string();
    if (name.compare(0, 5, "kovo-") == 0 && entry.path().extension() == ".log") {
      written = readFile(entry.path().string()).find("Request Failed.") != std::string::npos;
    }
  }
  EXPECT_TRUE(written);
}

TEST(ClientExceptions, AreContained) {
  const Resource resource(6, 4 * kChunk);
  FaultOrigin origin(serveResource(resource));
  TestEngineOptions options = smallChunks();
  options.config.progressInterval = 1;
  TestEngine engine(options);
  TransferHooks hooks;
  hooks.onStatusLine = [] { throw std::runtime_error("client"); };
  hooks.onHeaders = [] { throw 7; };
  hooks.onProgress = [] { throw std::string("client"); };
  hooks.onBody = [](uint64_t, std::string_view) { throw std::runtime_error("client"); };
  const TransferRecord& file = engine.download(origin.url(), engine.file("out"), hooks);
  const TransferRecord& memory = engine.downloadToMemory(origin.url(), hooks);
  for (const TransferRecord* record : {&file, &memory}) {
    ASSERT_TRUE(engine.wait(*record));
    EXPECT_EQ(record->events().completions, 1u);
    EXPECT_EQ(record->events().statusLines, 1u);
  }
  EXPECT_EQ(resource.differenceTo(engine.file("out")), "");
}

}  // namespace
}  // namespace kovo::test
