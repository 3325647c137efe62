#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <optional>

#include "integration/small_chunks.h"
#include "support/nginx.h"
#include "support/serve_resource.h"
#include "support/wait_until.h"

namespace kovo::test {
namespace {

using std::chrono::milliseconds;

const uint64_t kSizes[] = {0, 1, kChunk - 1, kChunk, kChunk + 1, 2 * kChunk, 9 * kChunk + 5};
const kovo_chunking_mode kModes[] = {KOVO_CHUNKING_DEFAULT, KOVO_CHUNKING_SERIAL,
                                     KOVO_CHUNKING_ALWAYS};

Resource resourceOf(uint64_t size) {
  return Resource(size + 17, size);
}

/* Chunked and whole answers are told apart by the status line alone. */
bool isSuccess(uint32_t status) {
  return status == 200 || status == 206;
}

/** Completed, once, and the file is the resource. */
void expectFile(TestEngine& engine, const TransferRecord& record, const std::string& path,
                const Resource& resource) {
  ASSERT_EQ(record.startResult, KOVO_ERROR_NONE);
  if (!engine.wait(record)) return;
  const TransferEvents events = record.events();
  EXPECT_EQ(events.completions, 1u) << events.errorText;
  EXPECT_TRUE(isSuccess(events.status)) << events.status;
  EXPECT_EQ(resource.differenceTo(path), "");
}

void expectMemory(TestEngine& engine, const TransferRecord& record, const std::string& bytes,
                  uint64_t from = 0) {
  ASSERT_EQ(record.startResult, KOVO_ERROR_NONE);
  if (!engine.wait(record)) return;
  const TransferEvents events = record.events();
  EXPECT_EQ(events.completions, 1u) << events.errorText;
  EXPECT_TRUE(isSuccess(events.status)) << events.status;
  EXPECT_TRUE(events.wholeBody(from) == bytes);
  EXPECT_EQ(events.bodyBytes, bytes.size());
}

class NginxDownload : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    _nginx = std::make_unique<Nginx>();
    for (const uint64_t size : kSizes) {
      _nginx->add("f" + std::to_string(size), resourceOf(size));
    }
    /* The trust store is read once per process. */
    ::setenv("SSL_CERT_FILE", _nginx->authorityFile().c_str(), 1);
  }
  static void TearDownTestSuite() { _nginx.reset(); }

  /** Every size in every mode, to a file and to memory, all at once on one engine. */
  static void downloadAll(const std::function<std::string(std::string_view)>& url,
                          const std::string& version) {
    TestEngine engine(smallChunks());
    struct Started {
      uint64_t size;
      std::string path;
      TransferRecord* file;
      TransferRecord* memory;
    };
    std::vector<Started> all;
    for (const uint64_t size : kSizes) {
      for (const kovo_chunking_mode mode : kModes) {
        const std::string name = 'f' + std::to_string(size);
        const std::string path = engine.file(name + '-' + std::to_string(mode));
        all.push_back({size, path, &engine.download(url('/' + name), path, {}, mode),
                       &engine.downloadToMemory(url('/' + name), {}, mode)});
      }
    }
    for (const Started& started : all) {
      SCOPED_TRACE(started.path);
      const Resource resource = resourceOf(started.size);
      expectFile(engine, *started.file, started.path, resource);
      expectMemory(engine, *started.memory, resource.all());
      EXPECT_EQ(started.file->events().httpVersion, version);
    }
  }

  static std::unique_ptr<Nginx> _nginx;
};

std::unique_ptr<Nginx> NginxDownload::_nginx;

TEST_F(NginxDownload, EverySizeAndModeOverPlainHttp) {
  downloadAll([](std::string_view path) { return _nginx->url(path); }, "Http11");
}

TEST_F(NginxDownload, EverySizeAndModeOverTls) {
  downloadAll([](std::string_view path) { return _nginx->tlsUrl(path); }, "Http11");
}

TEST_F(NginxDownload, EverySizeAndModeOverHttp2) {
  downloadAll([](std::string_view path) { return _nginx->http2Url(path); }, "Http20");
}

TEST_F(NginxDownload, RangesToMemory) {
  constexpr uint64_t kSize = 9 * kChunk + 5;
  const Resource resource = resourceOf(kSize);
  const std::string url = _nginx->url("/f" + std::to_string(kSize));
  TestEngine engine(smallChunks());
  struct Case {
    uint64_t start;
    uint64_t length;
    uint64_t expected;
  };
  const Case cases[] = {{0, 1, 1},
                        {10, kChunk, kChunk},
                        {kChunk - 1, kChunk + 1, kChunk + 1},
                        {5, 4 * kChunk + 7, 4 * kChunk + 7},
                        {kChunk, 0, kSize - kChunk},
                        {kSize - 1, 0, 1},
                        {kSize - 1, 1, 1},
                        {kSize - 10, 100, 10},
                        {kSize - kChunk - 10, 4 * kChunk, kChunk + 10},
                        {0, 20 * kChunk, kSize}};
  for (const Case& c : cases) {
    for (const kovo_chunking_mode mode : kModes) {
      SCOPED_TRACE(::testing::Message() << c.start << '+' << c.length << " mode " << mode);
      const TransferRecord& record = engine.downloadRange(url, c.start, c.length, {}, mode);
      expectMemory(engine, record, resource.bytes(c.start, c.expected), c.start);
      EXPECT_EQ(record.events().status, 206u);
    }
  }
}

TEST_F(NginxDownload, ARangePastTheEndBringsNoBytesOfTheResource) {
  const std::string url = _nginx->url("/f" + std::to_string(2 * kChunk));
  TestEngine engine(smallChunks());
  for (const uint64_t length : {uint64_t{0}, uint64_t{1}, kChunk, 3 * kChunk}) {
    const TransferRecord& record = engine.downloadRange(url, 2 * kChunk, length);
    ASSERT_TRUE(engine.wait(record));
    const TransferEvents events = record.events();
    EXPECT_TRUE(events.errors == 1 || events.status == 416) << length << events.errorText;
  }
}

TEST_F(NginxDownload, ReplacesALongerFileAndReportsAMissingFolder) {
  const std::string url = _nginx->url("/f" + std::to_string(kChunk + 1));
  TestEngine engine(smallChunks());
  const std::string path = engine.file("old");
  Resource(99, 5 * kChunk).writeTo(path);
  expectFile(engine, engine.download(url, path), path, resourceOf(kChunk + 1));

  const TransferRecord& record = engine.download(url, engine.file("missing/out"));
  ASSERT_TRUE(engine.wait(record));
  EXPECT_EQ(record.events().errors, 1u);
  EXPECT_EQ(record.events().errorCode, KOVO_ERROR_PARENT_FOLDER_NOT_FOUND)
      << record.events().errorText;
}

TEST_F(NginxDownload, ProgressRisesToTheSizeAndCountsEachByteOnce) {
  constexpr uint64_t kSize = 9 * kChunk + 5;
  for (const uint32_t cached : {0u, 1u}) {
    TestEngineOptions options = smallChunks();
    options.config.progressInterval = 1;
    options.config.getCacheEnabled = cached;
    TestEngine engine(options);
    const TransferRecord& record =
        engine.download(_nginx->url("/f" + std::to_string(kSize)), engine.file("out"));
    ASSERT_TRUE(engine.wait(record));
    const TransferEvents events = record.events();
    ASSERT_FALSE(events.progress.empty());
    uint64_t most = 0;
    for (const auto& [done, total] : events.progress) {
      EXPECT_LE(done, kSize);
      EXPECT_TRUE(total == 0 || total == kSize) << total;
      most = std::max(most, done);
    }
    EXPECT_GT(most, 0u);
  }
}

/* Whatever the settings, a server without ranges sends the resource once, and no memory of the
 * resource's size is needed: what has come stands in the file while the rest is still due. */
TEST(RangelessServer, IsAskedOnceWithEverySetting) {
  const Resource resource(3, 20 * kChunk + 1);
  ServeOptions serve;
  serve.ignoresRange = true;
  for (int variant = 0; variant < 16; ++variant) {
    TestEngineOptions options = smallChunks();
    options.config.chunkDownloads = (variant & 1) != 0;
    options.config.tryResumableTransfer = (variant & 2) != 0;
    options.config.getCacheEnabled = (variant & 4) != 0;
    serve.chunked = (variant & 8) != 0;
    TestEngine engine(options);
    for (const kovo_chunking_mode mode : kModes) {
      SCOPED_TRACE(::testing::Message() << "variant " << variant << " mode " << mode);
      FaultOrigin origin(serveResource(resource, serve));
      for (const char* name : {"out", "out._kstmp"}) {
        const std::string path = engine.file(name);
        const size_t before = origin.requestCount();
        expectFile(engine, engine.download(origin.url("/f"), path, {}, mode), path, resource);
        EXPECT_EQ(origin.requestCount(), before + 1) << name;
      }
      const size_t before = origin.requestCount();
      expectMemory(engine, engine.downloadToMemory(origin.url("/f"), {}, mode), resource.all());
      EXPECT_EQ(origin.requestCount(), before + 1);
    }
  }
}

TEST(RangelessServer, BytesReachTheFileAsTheyCome) {
  const Resource resource(4, 12 * 1024 * 1024);
  constexpr uint64_t kSent = 8 * 1024 * 1024;
  for (const kovo_chunking_mode mode : kModes) {
    FaultOrigin origin([&](const OriginRequest&, Responder& to) {
      to.head(200, {{"Content-Length", std::to_string(resource.size())}, {"ETag", "\"a\""}});
      to.range(resource, 0, kSent);
      to.stall();
      to.range(resource, kSent, resource.size() - kSent);
    });
    TestEngine engine(smallChunks());
    const std::string path = engine.file("out");
    const TransferRecord& record = engine.download(origin.url(), path, {}, mode);
    EXPECT_TRUE(waitUntil(
        [&] {
          std::error_code none;
          const uintmax_t size = std::filesystem::file_size(path, none);
          /* One buffer of 1 MiB may still be filling. */
          return !none && size >= kSent - 2 * 1024 * 1024;
        },
        milliseconds(10000)))
        << "mode " << mode;
    origin.release();
    expectFile(engine, record, path, resource);
  }
}

TEST(RangelessServer, AnswersARangeWithBytesAtTheirOwnOffsets) {
  const Resource resource(5, 3 * kChunk);
  ServeOptions serve;
  serve.ignoresRange = true;
  FaultOrigin origin(serveResource(resource, serve));
  TestEngine engine(smallChunks());
  for (const uint64_t length : {uint64_t{10}, kChunk + 1}) {
    const TransferRecord& record = engine.downloadRange(origin.url(), 1000, length);
    ASSERT_TRUE(engine.wait(record));
    for (const auto& [offset, data] : record.events().body) {
      EXPECT_TRUE(resource.matches(offset, data)) << offset;
    }
  }
}

TEST(UnknownLength, IsReadToItsEnd) {
  for (const bool closes : {false, true}) {
    for (const uint64_t size : kSizes) {
      const Resource resource = resourceOf(size);
      ServeOptions serve;
      serve.ignoresRange = true;
      serve.chunked = !closes;
      serve.closeDelimited = closes;
      FaultOrigin origin(serveResource(resource, serve));
      TestEngine engine(smallChunks());
      for (const kovo_chunking_mode mode : kModes) {
        SCOPED_TRACE(::testing::Message() << size << " mode " << mode << " closes " << closes);
        const std::string path = engine.file("out");
        expectFile(engine, engine.download(origin.url(), path, {}, mode), path, resource);
        expectMemory(engine, engine.downloadToMemory(origin.url(), {}, mode), resource.all());
      }
    }
  }
}

TEST(UnknownLength, HiddenTotalIsFetchedWhole) {
  for (const uint64_t size : kSizes) {
    const Resource resource = resourceOf(size);
    ServeOptions serve;
    serve.hidesTotal = true;
    FaultOrigin origin(serveResource(resource, serve));
    TestEngine engine(smallChunks());
    for (const kovo_chunking_mode mode : kModes) {
      SCOPED_TRACE(::testing::Message() << size << " mode " << mode);
      const std::string path = engine.file("out");
      expectFile(engine, engine.download(origin.url(), path, {}, mode), path, resource);
      expectMemory(engine, engine.downloadToMemory(origin.url(), {}, mode), resource.all());
    }
  }
}

/* Servers may answer fewer bytes than asked for, as long as they say so. */
TEST(ShortAnswers, TheRestIsAskedFor) {
  const Resource resource(6, 5 * kChunk + 3);
  for (const uint64_t most : {kChunk / 2, kChunk - 1, uint64_t{1000}}) {
    ServeOptions serve;
    serve.mostPerAnswer = most;
    FaultOrigin origin(serveResource(resource, serve));
    TestEngine engine(smallChunks());
    const std::string path = engine.file("out");
    const TransferRecord& record = engine.download(origin.url(), path);
    ASSERT_TRUE(engine.wait(record));
    const TransferEvents events = record.events();
    if (events.completions == 1) {
      EXPECT_EQ(resource.differenceTo(path), "");
    } else {
      EXPECT_EQ(events.errorCode, KOVO_ERROR_NOT_ENOUGH_DATA) << events.errorText;
    }
  }
}

TEST(EmptyResource, TheFirstChunks416BecomesAWholeDownloadIntoTheSameFile) {
  FaultOrigin origin(serveResource(Resource(1, 0)));
  TestEngine engine(smallChunks());
  const std::string path = engine.file("out");
  expectFile(engine, engine.download(origin.url(), path), path, Resource(1, 0));
  EXPECT_EQ(origin.requests().back().header("Range"), std::nullopt);
  expectMemory(engine, engine.downloadToMemory(origin.url()), "");

  /* A resource that appears between the two requests is the file's content. */
  const Resource late(2, 3 * kChunk);
  FaultOrigin changing([&late](const OriginRequest& request, Responder& to) {
    if (request.header("Range")) {
      to.respond(416, {{"Content-Range", "bytes */0"}});
    } else {
      serveResource(late)(request, to);
    }
  });
  expectFile(engine, engine.download(changing.url(), path), path, late);
}

TEST(EmptyResource, EndlessRefusalEndsInAnError) {
  FaultOrigin origin([](const OriginRequest&, Responder& to) {
    to.respond(416, {{"Content-Range", "bytes */0"}}, "no");
  });
  TestEngine engine(smallChunks());
  for (const kovo_chunking_mode mode : kModes) {
    const size_t before = origin.requestCount();
    const TransferRecord& record = engine.download(origin.url(), engine.file("out"), {}, mode);
    ASSERT_TRUE(engine.wait(record));
    EXPECT_TRUE(record.events().errors == 1 || record.events().status == 416) << mode;
    EXPECT_LE(origin.requestCount() - before, 5u);
  }
}

}  // namespace
}  // namespace kovo::test
