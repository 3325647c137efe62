#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <limits>
#include <map>
#include <ostream>
#include <tuple>

#include "integration/small_chunks.h"
#include "support/serve_resource.h"

namespace kovo::test {
namespace {

/* Ten chunks; faults meet the fourth or the first. */
const Resource kResource(11, 10 * kChunk + 77);
constexpr uint64_t kVictim = 3 * kChunk;

std::string contentRange(uint64_t first, uint64_t length, const std::string& total) {
  return "bytes " + std::to_string(first) + '-' + std::to_string(first + length - 1) + '/' + total;
}

/** A well-formed 206 for the request, with some headers replaced ("" removes one). */
void partHead(const OriginRequest& request, Responder& to,
              const std::map<std::string, std::string>& changed = {}, int status = 206) {
  const uint64_t first = request.rangeStart();
  const uint64_t length = std::min(kChunk, kResource.size() - first);
  Headers headers{{"ETag", "\"v1\""},
                  {"Content-Range", contentRange(first, length, std::to_string(kResource.size()))},
                  {"Content-Length", std::to_string(length)}};
  for (const auto& [name, value] : changed) {
    std::erase_if(headers, [&name = name](const auto& header) { return header.first == name; });
    if (!value.empty()) headers.emplace_back(name, value);
  }
  to.head(status, headers);
}

struct Fault {
  const char* name;
  OriginHandler answer;
  /* What is left of the transfer when the fault comes once and the client asks to send again. */
  enum class Cure { kRetry, kMaybe } cure = Cure::kMaybe;
  /* As first answer it would be a resource like any other. */
  bool laterOnly = false;
};

void PrintTo(const Fault& fault, std::ostream* out) {
  *out << fault.name;
}

using Cure = Fault::Cure;

Fault statusFault(const char* name, int status, Cure cure = Cure::kMaybe) {
  return {name,
          [status](const OriginRequest&, Responder& to) {
            to.respond(status, {{"ETag", "\"v1\""}}, "an answer that is not the resource");
          },
          cure};
}

Fault headerFault(const char* name, std::map<std::string, std::string> changed, int status = 206) {
  return {name, [changed, status](const OriginRequest& request, Responder& to) {
            partHead(request, to, changed, status);
            const uint64_t first = request.rangeStart();
            to.range(kResource, first, std::min(kChunk, kResource.size() - first));
            to.close();
          }};
}

Fault rawFault(const char* name, std::string text, bool withBody = false) {
  return {name, [text, withBody](const OriginRequest& request, Responder& to) {
            to.raw(text);
            if (withBody) to.range(kResource, request.rangeStart(), kChunk);
            to.close();
          }};
}

std::vector<Fault> faults() {
  const std::string total = std::to_string(kResource.size());
  return {
      {"BodyCutByClose",
       [](const OriginRequest& request, Responder& to) {
         partHead(request, to);
         to.cutAfter(kChunk / 2);
         to.range(kResource, request.rangeStart(), kChunk);
       },
       Cure::kRetry},
      {"BodyCutByReset",
       [](const OriginRequest& request, Responder& to) {
         partHead(request, to);
         to.cutAfter(kChunk - 1, Cut::kReset);
         to.range(kResource, request.rangeStart(), kChunk);
       },
       Cure::kRetry},
      {"ResetBeforeTheAnswer", [](const OriginRequest&, Responder& to) { to.reset(); },
       Cure::kRetry},
      {"ClosedBeforeTheAnswer", [](const OriginRequest&, Responder& to) { to.close(); },
       Cure::kRetry},
      {"ClosedInsideTheHeaders",
       [](const OriginRequest& request, Responder& to) {
         to.cutAfter(40);
         partHead(request, to);
       },
       Cure::kRetry},
      {"LengthBelowTheContentRange",
       [](const OriginRequest& request, Responder& to) {
         partHead(request, to, {{"Content-Length", std::to_string(kChunk / 2)}});
         to.range(kResource, request.rangeStart(), kChunk / 2);
       }},
      {"FewerBytesThanAskedForAndSaidSo",
       [total](const OriginRequest& request, Responder& to) {
         const uint64_t first = request.rangeStart();
         partHead(request, to,
                  {{"Content-Range", contentRange(first, 100, total)}, {"Content-Length", "100"}});
         to.range(kResource, first, 100);
       }},
      {"MoreBytesThanAskedFor",
       [](const OriginRequest& request, Responder& to) {
         partHead(request, to, {{"Content-Length", std::to_string(2 * kChunk)}});
         to.range(kResource, request.rangeStart() + 1, 2 * kChunk);
       }},
      {"MoreBytesInChunkedEncoding",
       [](const OriginRequest& request, Responder& to) {
         partHead(request, to, {{"Content-Length", ""}, {"Transfer-Encoding", "chunked"}});
         to.chunk(kResource.bytes(request.rangeStart(), kChunk));
         to.chunk("bytes beyond the range");
         to.endChunks();
       }},
      {"ChunkedEncodingCut",
       [](const OriginRequest& request, Responder& to) {
         partHead(request, to, {{"Content-Length", ""}, {"Transfer-Encoding", "chunked"}});
         to.chunk(kResource.bytes(request.rangeStart(), kChunk / 2));
         to.close();
       },
       Cure::kRetry},
      {"EndOfConnectionAsEndOfShortBody",
       [](const OriginRequest& request, Responder& to) {
         partHead(request, to, {{"Content-Length", ""}, {"Connection", "close"}});
         to.range(kResource, request.rangeStart(), kChunk / 2);
         to.close();
       }},
      {"AnotherEntityTag",
       [](const OriginRequest& request, Responder& to) {
         partHead(request, to, {{"ETag", "\"v2\""}});
         to.range(Resource(12, kResource.size()), request.rangeStart(), kChunk);
       }},
      {"AnotherTotal",
       [](const OriginRequest& request, Responder& to) {
         const uint64_t first = request.rangeStart();
         partHead(request, to, {{"Content-Range", contentRange(first, kChunk, "999999999")}});
         to.range(Resource(12, kResource.size()), first, kChunk);
       }},
      {"RangeElsewhere",
       [total](const OriginRequest& request, Responder& to) {
         partHead(request, to,
                  {{"Content-Range", contentRange(request.rangeStart() + 1, kChunk, total)}});
         to.range(kResource, request.rangeStart() + 1, kChunk);
       }},
      {"Whole200OfAnotherVersion",
       [](const OriginRequest&, Responder& to) {
         const Resource other(12, kResource.size());
         to.respond(200, {{"ETag", "\"v2\""}}, other.all());
       },
       Cure::kMaybe, true},
      {"Short200", [](const OriginRequest&, Responder& to) { to.respond(200, {}, "short"); },
       Cure::kMaybe, true},
      {"Headerless206",
       [](const OriginRequest& request, Responder& to) {
         to.raw("HTTP/1.1 206 Partial Content\r\n\r\n");
         to.range(kResource, request.rangeStart(), kChunk);
         to.close();
       }},
      {"Headerless200",
       [](const OriginRequest&, Responder& to) {
         to.raw("HTTP/1.1 200 OK\r\n\r\n");
         to.range(kResource, 0, kChunk);
         to.close();
       }},
      statusFault("Status204", 204),
      statusFault("Status304", 304),
      statusFault("Status302WithoutLocation", 302),
      statusFault("Status404", 404, Cure::kRetry),
      statusFault("Status416", 416),
      statusFault("Status500", 500, Cure::kRetry),
      statusFault("Status503", 503, Cure::kRetry),
      headerFault("NoContentRange", {{"Content-Range", ""}}),
      headerFault("ContentRangeWithoutDigits", {{"Content-Range", "bytes a-b/c"}}),
      headerFault("ContentRangeOfNothing", {{"Content-Range", "bytes"}}),
      headerFault("ContentRangeInOtherUnits", {{"Content-Range", "pages 0-1/2"}}),
      headerFault("ContentRangeOverflows",
                  {{"Content-Range", "bytes 0-99999999999999999999999/99999999999999999999999"}}),
      headerFault("MultipartRanges",
                  {{"Content-Range", ""}, {"Content-Type", "multipart/byteranges; boundary=x"}}),
      headerFault("LengthWithoutDigits", {{"Content-Length", "many"}}),
      headerFault("LengthNegative", {{"Content-Length", "-1"}}),
      headerFault("LengthOverflows", {{"Content-Length", "99999999999999999999999"}}),
      headerFault("LengthListed", {{"Content-Length", "1, 2"}}),
      headerFault("Whole200LengthWithoutDigits", {{"Content-Length", "x"}, {"Content-Range", ""}},
                  200),
      rawFault("Garbage", std::string("\x01\x02\x03garbage\r\n\r\nmore\r\n", 20)),
      rawFault("NoStatusLine", "just a body"),
      rawFault("StatusLineWithoutNumber", "HTTP/1.1 okay\r\nETag: \"v1\"\r\n\r\n"),
      rawFault("StatusOutOfRange", "HTTP/1.1 99999 Odd\r\nETag: \"v1\"\r\n\r\n"),
      rawFault("HeaderLinesWithoutColon",
               "HTTP/1.1 206 Partial Content\r\nno colon\r\n: \r\n:\r\n\r\n", true),
      rawFault("ControlBytesInHeaders",
               std::string("HTTP/1.1 206 Partial Content\r\nX: \0\x7f\xff\r\n\r\n", 39), true),
      {"EndlessHeaders", [](const OriginRequest&, Responder& to) { to.endlessHeaders(); }},
      {"EndlessHeaderLine",
       [](const OriginRequest&, Responder& to) {
         to.raw("HTTP/1.1 206 Partial Content\r\nX-Endless: ");
         const std::string piece(10'000, 'x');
         for (;;) to.raw(piece);
       }},
      {"EndlessInterimAnswers",
       [](const OriginRequest&, Responder& to) {
         for (;;) to.raw("HTTP/1.1 100 Continue\r\n\r\n");
       }},
      {"RedirectLoop",
       [](const OriginRequest& request, Responder& to) {
         to.respond(302, {{"Location", request.target}});
       }},
      {"RedirectToAFile",
       [](const OriginRequest&, Responder& to) {
         to.respond(302, {{"Location", "file:///etc/passwd"}});
       }},
      {"RedirectToNowhere",
       [](const OriginRequest&, Responder& to) {
         to.respond(302, {{"Location", "http://127.0.0.1:1/"}});
       }},
  };
}

enum class Where { kFirstChunk, kLaterChunk };

std::vector<std::tuple<Fault, Where>> cases() {
  std::vector<std::tuple<Fault, Where>> all;
  for (const Fault& fault : faults()) {
    if (!fault.laterOnly) all.emplace_back(fault, Where::kFirstChunk);
    all.emplace_back(fault, Where::kLaterChunk);
  }
  return all;
}

class FaultyAnswer : public ::testing::TestWithParam<std::tuple<Fault, Where>> {
 protected:
  /** Serves kResource, except that the victim's first `times` requests meet the fault. */
  std::unique_ptr<FaultOrigin> originFailing(int times) {
    const auto& [fault, where] = GetParam();
    const uint64_t victim = where == Where::kFirstChunk ? 0 : kVictim;
    const auto left = std::make_shared<std::atomic<int>>(times);
    return std::make_unique<FaultOrigin>(
        [victim, left, answer = fault.answer, good = serveResource(kResource)](
            const OriginRequest& request, Responder& to) {
          if (request.rangeStart() == victim && left->fetch_sub(1) > 0) {
            answer(request, to);
          } else {
            good(request, to);
          }
        });
  }

  /** One final callback; a completed file is the whole resource, a failed one is gone. */
  static void expectSound(TestEngine& engine, const TransferRecord& record,
                          const std::string& path) {
    if (!engine.wait(record)) return;
    const TransferEvents events = record.events();
    EXPECT_EQ(events.finals(), 1u);
    if (events.completions != 0) {
      /* One request's failing status is the transfer's result, and the client is told. */
      if (events.status < 300) {
        EXPECT_EQ(kResource.differenceTo(path), "");
      }
    } else {
      EXPECT_EQ(events.errors, 1u);
      EXPECT_NE(events.errorCode, KOVO_ERROR_NONE);
      EXPECT_NE(events.errorText, "");
      EXPECT_FALSE(std::filesystem::exists(path)) << events.errorText;
    }
  }
};

TEST_P(FaultyAnswer, NeverCompletesWithWrongBytes) {
  constexpr int kForEver = std::numeric_limits<int>::max();
  for (const kovo_chunking_mode mode : {KOVO_CHUNKING_ALWAYS, KOVO_CHUNKING_SERIAL}) {
    const auto origin = originFailing(kForEver);
    TestEngine engine(smallChunksUncached());
    const std::string path = engine.file("out");
    TransferHooks hooks;
    hooks.timeoutSeconds = 5;
    SCOPED_TRACE(::testing::Message() << "mode " << mode);
    expectSound(engine, engine.download(origin->url(), path, hooks, mode), path);
    EXPECT_LT(origin->requestCount(), 60u);
  }
}

TEST_P(FaultyAnswer, IsSentAgainWhenTheClientSaysSo) {
  const Fault& fault = std::get<0>(GetParam());
  const auto origin = originFailing(1);
  TestEngine engine(smallChunksUncached());
  const std::string path = engine.file("out");
  TransferHooks hooks;
  hooks.timeoutSeconds = 5;
  hooks.retry = [](uint32_t, uint32_t) { return 1; };
  const TransferRecord& record = engine.download(origin->url(), path, hooks, KOVO_CHUNKING_ALWAYS);
  expectSound(engine, record, path);
  if (fault.cure == Cure::kRetry) {
    EXPECT_EQ(record.events().completions, 1u) << record.events().errorText;
    EXPECT_EQ(record.events().pauses, 0u);
  }
}

TEST_P(FaultyAnswer, EndsInAnErrorWhenRetriesDoNotHelp) {
  constexpr int kForEver = std::numeric_limits<int>::max();
  const auto origin = originFailing(kForEver);
  TestEngine engine(smallChunksUncached());
  const std::string path = engine.file("out");
  TransferHooks hooks;
  hooks.timeoutSeconds = 5;
  const auto answers = std::make_shared<std::atomic<int>>(0);
  hooks.retry = [answers](uint32_t, uint32_t) { return ++*answers <= 4 ? 1 : 0; };
  expectSound(engine, engine.download(origin->url(), path, hooks, KOVO_CHUNKING_ALWAYS), path);
  EXPECT_LE(*answers, 5 + 16);
}

INSTANTIATE_TEST_SUITE_P(All, FaultyAnswer, ::testing::ValuesIn(cases()), [](const auto& test) {
  const bool first = std::get<1>(test.param) == Where::kFirstChunk;
  return std::string(std::get<0>(test.param).name) + (first ? "First" : "Later");
});

TEST(ChangingResource, IsNeverMixedFromTwoVersions) {
  for (size_t after = 1; after < 11; ++after) {
    for (const bool withTag : {true, false}) {
      SCOPED_TRACE(::testing::Message() << "after " << after << " tag " << withTag);
      ServeOptions serve;
      serve.changesAfter = after;
      serve.lastModified = "";
      if (!withTag) {
        /* Nothing tells the versions apart but the total. */
        serve.etag = serve.laterEtag = "";
      }
      const auto good = serveResource(kResource, serve);
      FaultOrigin origin([&](const OriginRequest& request, Responder& to) {
        if (withTag || request.index < after) {
          good(request, to);
        } else {
          const Resource longer(13, kResource.size() + 1000);
          ServeOptions plain;
          plain.etag = plain.lastModified = "";
          serveResource(longer, plain)(request, to);
        }
      });
      TestEngine engine(smallChunksUncached());
      const std::string path = engine.file("out");
      TransferHooks hooks;
      const auto answers = std::make_shared<std::atomic<int>>(0);
      hooks.retry = [answers](uint32_t, uint32_t) { return ++*answers <= 20 ? 1 : 0; };
      const TransferRecord& record =
          engine.download(origin.url(), path, hooks, KOVO_CHUNKING_ALWAYS);
      ASSERT_TRUE(engine.wait(record));
      if (record.events().completions == 1) {
        const bool oneVersion =
            kResource.differenceTo(path).empty() ||
            Resource(ServeOptions().laterSeed, kResource.size()).differenceTo(path).empty() ||
            Resource(13, kResource.size() + 1000).differenceTo(path).empty();
        EXPECT_TRUE(oneVersion);
      }
    }
  }
}

TEST(FailingChunk, TellsTheClientWhichRequestFailedAndHow) {
  FaultOrigin origin([](const OriginRequest& request, Responder& to) {
    if (request.rangeStart() == kVictim) {
      to.respond(503, {{"X-Why", "busy"}}, "come back later");
    } else {
      serveResource(kResource)(request, to);
    }
  });
  TestEngine engine(smallChunksUncached());
  const TransferRecord& record =
      engine.download(origin.url(), engine.file("out"), {}, KOVO_CHUNKING_ALWAYS);
  ASSERT_TRUE(engine.wait(record));
  const TransferEvents events = record.events();
  EXPECT_EQ(events.errorCode, KOVO_ERROR_CHUNK_RETRY_FAILED) << events.errorText;
  ASSERT_EQ(events.retryCalls.size(), 1u);
  const TransferEvents::Chunk& call = events.retryCalls[0];
  EXPECT_EQ(call.type, static_cast<uint32_t>(KOVO_CHUNK_TYPE_CHUNK));
  EXPECT_EQ(call.number, 3u);
  EXPECT_EQ(call.errorCode, KOVO_ERROR_CHUNK_HTTP_ERROR);
  EXPECT_EQ(call.status, 503u);
  EXPECT_EQ(call.text, "come back later");
}

TEST(FailingChunk, EveryChunkMayFailOnce) {
  std::mutex mutex;
  std::map<uint64_t, int> seen;
  FaultOrigin origin([&](const OriginRequest& request, Responder& to) {
    int times = 0;
    {
      const std::lock_guard lock(mutex);
      times = seen[request.rangeStart()]++;
    }
    if (times == 0) {
      to.respond(500, {}, "once");
    } else {
      serveResource(kResource)(request, to);
    }
  });
  TestEngine engine(smallChunksUncached());
  TransferHooks hooks;
  hooks.retry = [](uint32_t, uint32_t) { return 1; };
  const std::string path = engine.file("out");
  const TransferRecord& record = engine.download(origin.url(), path, hooks, KOVO_CHUNKING_ALWAYS);
  ASSERT_TRUE(engine.wait(record));
  EXPECT_EQ(record.events().completions, 1u) << record.events().errorText;
  EXPECT_EQ(kResource.differenceTo(path), "");
}

TEST(FailingChunk, MemoryGetsNoByteOfAFailedAnswerAsTheResources) {
  FaultOrigin origin([](const OriginRequest& request, Responder& to) {
    if (request.rangeStart() == kVictim) {
      to.respond(200, {{"ETag", "\"v2\""}}, Resource(12, kResource.size()).all());
    } else {
      serveResource(kResource)(request, to);
    }
  });
  TestEngine engine(smallChunksUncached());
  const TransferRecord& record = engine.downloadToMemory(origin.url(), {}, KOVO_CHUNKING_ALWAYS);
  ASSERT_TRUE(engine.wait(record));
  const TransferEvents events = record.events();
  EXPECT_EQ(events.errors, 1u);
  for (const auto& [offset, data] : events.body) EXPECT_TRUE(kResource.matches(offset, data));
}

TEST(WholeAnswer, CutBodyIsAnErrorInEveryMode) {
  const Resource resource(14, 4 * kChunk);
  for (const kovo_chunking_mode mode :
       {KOVO_CHUNKING_DEFAULT, KOVO_CHUNKING_SERIAL, KOVO_CHUNKING_ALWAYS}) {
    for (const bool chunked : {false, true}) {
      FaultOrigin origin([&](const OriginRequest&, Responder& to) {
        if (chunked) {
          to.head(200, {{"Transfer-Encoding", "chunked"}});
          to.chunk(resource.bytes(0, 2 * kChunk));
          to.close();
        }
        to.head(200, {{"Content-Length", std::to_string(resource.size())}});
        to.cutAfter(2 * kChunk);
        to.range(resource, 0, resource.size());
      });
      TestEngine engine(smallChunksUncached());
      const TransferRecord& file = engine.download(origin.url(), engine.file("out"), {}, mode);
      const TransferRecord& memory = engine.downloadToMemory(origin.url(), {}, mode);
      for (const TransferRecord* record : {&file, &memory}) {
        ASSERT_TRUE(engine.wait(*record));
        EXPECT_EQ(record->events().errors, 1u) << "mode " << mode << " chunked " << chunked;
      }
      EXPECT_FALSE(std::filesystem::exists(engine.file("out")));
    }
  }
}

TEST(KeptConnection, WithAnAnswerNobodyAskedForIsNotUsedAgain) {
  const std::string stray = "HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\nWRONG";
  Gate received;
  Gate sent;
  FaultOrigin origin([&](const OriginRequest& request, Responder& to) {
    to.respond(200, {}, "right");
    if (request.index == 0) {
      to.stallUntil(received);
      to.raw(stray);
      sent.open();
    }
  });
  TestEngine engine(smallChunksUncached());
  const TransferRecord& first = engine.sendRequest(KOVO_HTTP_GET, origin.url());
  ASSERT_TRUE(engine.wait(first));
  received.open();
  ASSERT_TRUE(sent.waitFor(std::chrono::seconds(10)));
  const TransferRecord& second = engine.sendRequest(KOVO_HTTP_GET, origin.url());
  ASSERT_TRUE(engine.wait(second));
  EXPECT_EQ(second.events().wholeBody(), "right");
}

TEST(BadUrl, EndsInAnErrorCallback) {
  TestEngine engine(smallChunksUncached());
  for (const std::string url :
       {"nonsense", "http://", "://", "http:///path", "ftp://127.0.0.1/x", "file:///etc/passwd",
        "http://127.0.0.1:99999/", "http://127.0.0.1:0/", "http://[::1", "http://a b/", "https:",
        "http://%zz/", "http://exa\x01mple/", "http://nowhere.invalid/", "http://127.0.0.1:1/"}) {
    SCOPED_TRACE(url);
    const TransferRecord& file = engine.download(url, engine.file("out"));
    const TransferRecord& memory = engine.downloadToMemory(url);
    const TransferRecord& request = engine.sendRequest(KOVO_HTTP_GET, url);
    for (const TransferRecord* record : {&file, &memory, &request}) {
      ASSERT_EQ(record->startResult, KOVO_ERROR_NONE);
      ASSERT_TRUE(engine.wait(*record));
      EXPECT_EQ(record->events().errors, 1u);
    }
  }
}

}  // namespace
}  // namespace kovo::test
