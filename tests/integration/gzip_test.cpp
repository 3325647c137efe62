#include <gtest/gtest.h>

#include <atomic>
#include <string>

#include "support/engine_fixture.h"
#include "support/fault_origin.h"
#include "support/serve_resource.h"

namespace kovo::test {
namespace {

/** Answers with bytes as a gzip body in pieces of an odd size. */
OriginHandler packedAnswer(std::string bytes) {
  return [bytes = std::move(bytes)](const OriginRequest&, Responder& to) {
    to.head(200, {{"Content-Encoding", "gzip"},
                  {"Transfer-Encoding", "chunked"},
                  {"ETag", "\"v1\""},
                  {"Last-Modified", "Wed, 21 Oct 2015 07:28:00 GMT"},
                  {"Content-Type", "text/plain"}});
    constexpr size_t kPiece = 7777;
    for (size_t at = 0; at < bytes.size(); at += kPiece) to.chunk(bytes.substr(at, kPiece));
    to.endChunks();
  };
}

TEST(Gzip, ArrivesInflatedWithoutTheHeadersOfItsPackedForm) {
  const Resource resource(61, 5 * 1024 * 1024 + 3);
  FaultOrigin packed(packedAnswer(gzip(resource.all())));
  FaultOrigin trailed(packedAnswer(gzip(resource.all()) + "and something behind it"));
  TestEngine engine;
  for (const FaultOrigin* origin : {&packed, &trailed}) {
    const TransferRecord& record = engine.sendRequest(KOVO_HTTP_GET, origin->url(), {}, 1);
    ASSERT_TRUE(engine.wait(record));
    const TransferEvents events = record.events();
    EXPECT_EQ(events.completions, 1u) << events.errorText;
    EXPECT_TRUE(events.wholeBody() == resource.all());
    EXPECT_EQ(origin->requests()[0].header("Accept-Encoding"), "gzip");
    ASSERT_FALSE(events.headers.empty());
    for (const auto& [name, value] : events.headers) {
      EXPECT_TRUE(name == "Content-Type" || name == "Transfer-Encoding") << name;
    }
  }

  constexpr size_t kBomb = 64 * 1024 * 1024;
  FaultOrigin bomb(packedAnswer(gzip(std::string(kBomb, 'x'))));
  TransferHooks counting;
  counting.dropsBody = true;
  const TransferRecord& record = engine.sendRequest(KOVO_HTTP_GET, bomb.url(), counting, 1);
  ASSERT_TRUE(engine.wait(record));
  EXPECT_EQ(record.events().completions, 1u);
  EXPECT_EQ(record.events().bodyBytes, kBomb);
}

TEST(Gzip, ACorruptStreamIsLoggedAndCutOff) {
  static std::atomic<int> warnings;
  kovoRegisterLoggingCallback(
      [](uint32_t level, const char* message, const char*, const char*, uint32_t, void*) {
        const std::string text = message;
        warnings += level == KOVO_LOG_WARN && text.find("ZipStreamHandler failed to ") == 0;
      },
      nullptr);
  std::string text;
  for (int i = 0; i < 300000; ++i) text += std::to_string(i);
  std::string broken = gzip(text);
  broken.replace(broken.size() / 2, 64, std::string(64, '\xff'));
  const std::string bodies[] = {broken, "not packed at all"};
  TestEngine engine;
  for (const std::string& body : bodies) {
    warnings = 0;
    FaultOrigin origin(packedAnswer(body));
    const TransferRecord& record = engine.sendRequest(KOVO_HTTP_GET, origin.url(), {}, 1);
    ASSERT_TRUE(engine.wait(record));
    const TransferEvents events = record.events();
    EXPECT_EQ(events.completions, 1u) << events.errorText;
    EXPECT_LT(events.bodyBytes, text.size());
    EXPECT_GE(warnings, 1);
  }
  kovoRegisterLoggingCallback(nullptr, nullptr);
}

}  // namespace
}  // namespace kovo::test
