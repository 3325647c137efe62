#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "support/log_capture.h"
#include "upload/json_schema.h"
#include "upload/json_text.h"

namespace kovo::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

TEST(JsonBinding, ReadsTheObjectBetweenTheOutermostBraces) {
  const LogCapture log;
  std::string inner;
  std::string outer;
  JSONSchema schema;
  schema.object("o").string("i", &inner);
  schema.string("a", &outer);
  EXPECT_TRUE(
      schema.parseJSON("\xEF\xBB\xBF junk {\"x\":[1,null],\"o\":{\"i\":\"v\"},\"a\":\"b\","
                       "\"a\":\"second\"}\r\n junk"));
  EXPECT_EQ(inner, "v");
  EXPECT_EQ(outer, "b") << "the first member of a name counts";
  EXPECT_THAT(log.messages(), IsEmpty());
}

TEST(JsonBinding, FillsWhatItCanAndSaysWhatIsMissing) {
  const LogCapture log;
  std::string number = "before";
  std::string missing = "before";
  std::string good;
  std::string inArray = "before";
  JSONSchema schema;
  schema.string("n", &number);
  schema.string("m", &missing);
  schema.object("o").string("i", &inArray);
  schema.string("g", &good);
  EXPECT_FALSE(schema.parseJSON(R"({"n":5,"o":[{"i":"x"}],"g":"a\u0000b"})"));
  EXPECT_EQ(number, "before");
  EXPECT_EQ(missing, "before");
  EXPECT_EQ(inArray, "before");
  EXPECT_EQ(good, "a") << "up to the first NUL";
  EXPECT_THAT(log.messages(),
              ElementsAre("JSONString: Failed to parse JSON String value for n",
                          "Failed to find JSON value for m", "Failed to parse JSON object for o",
                          "Failed to parse all members of JSON Object "));
}

TEST(JsonBinding, EndsInALogLineForAnyText) {
  std::string target;
  const auto parse = [&target](const std::string& text) {
    JSONSchema schema;
    schema.string("a", &target);
    return schema.parseJSON(text);
  };
  const LogCapture log;
  EXPECT_FALSE(parse(""));
  EXPECT_FALSE(parse("no braces"));
  EXPECT_FALSE(parse("}{"));
  EXPECT_FALSE(parse("{\"a\":\"\\ud800\"}"));
  EXPECT_FALSE(parse("{\"a\":1e999999}"));
  EXPECT_FALSE(parse(std::string("{\"a\0\":\"b\"}", 10)));
  EXPECT_EQ(log.messages().size(), 6u);
  EXPECT_EQ(log.messages().front(), "Failed to parse raw JSON document: The document is empty.");
  // Bytes that are not UTF-8 pass or fail, but end in a result.
  parse("{\"a\":\"\xff\xfe\xc0\"}");
}

TEST(JsonBinding, SurvivesAnyDepth) {
  const LogCapture log;
  constexpr std::size_t kDepth = 4'000'000;
  std::string target;
  JSONSchema schema;
  schema.string("a", &target);
  EXPECT_FALSE(schema.parseJSON("{\"a\":" + std::string(kDepth, '[') + "}"));
  EXPECT_FALSE(
      schema.parseJSON("{\"a\":" + std::string(kDepth, '[') + std::string(kDepth, ']') + "}"));
  std::string objects;
  for (std::size_t depth = 0; depth < kDepth / 8; ++depth) {
    objects += "{\"a\":";
  }
  EXPECT_FALSE(schema.parseJSON(objects + "1" + std::string(kDepth / 8, '}')));
}

TEST(JsonText, EscapesWhatWouldEndAString) {
  EXPECT_EQ(escapeJson("AKIA/+=\xC3\xA9"), "AKIA/+=\xC3\xA9");
  EXPECT_EQ(escapeJson("a\"b\\c\n\x01"), "a\\\"b\\\\c\\u000a\\u0001");
}

TEST(JsonText, TellsAWholeStringFromAnythingElse) {
  for (const char* text : {"\"\"", "\"9bb58f26192e4ba00f01e2e7b136bbd8-12\"", "\"a\\\"b\"",
                           "\"\\u00e9\"", "\"\\\\\""}) {
    EXPECT_TRUE(isJsonString(text)) << text;
  }
  for (const char* text : {"", "\"", "abc", "W/\"abc\"", "\"a\"b\"", "\"a\\\"", "\"\\u12\"",
                           "\"\\x\"", "\"a\nb\"", "\"a\",\"x\":\"b\""}) {
    EXPECT_FALSE(isJsonString(text)) << text;
  }
  EXPECT_FALSE(isJsonString(std::string("\"\\u00\0001\"", 8)));
}

}  // namespace
}  // namespace kovo::test
