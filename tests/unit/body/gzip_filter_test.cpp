#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <zlib.h>

#include <random>
#include <string>
#include <vector>

#include "body/gzip_input_filter.h"
#include "body/string_stream_sink.h"
#include "support/log_capture.h"
#include "support/serve_resource.h"

namespace kovo {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

std::string zlibCompressed(const std::string& text) {
  std::string bytes(compressBound(text.size()), '\0');
  uLongf size = bytes.size();
  EXPECT_EQ(compress(reinterpret_cast<Bytef*>(bytes.data()), &size,
                     reinterpret_cast<const Bytef*>(text.data()), text.size()),
            Z_OK);
  return bytes.substr(0, size);
}

std::string sampleText(std::size_t size, std::mt19937& random) {
  std::string text;
  while (text.size() < size) {
    text.append(random() % 40, static_cast<char>('a' + random() % 26));
  }
  text.resize(size);
  return text;
}

class GzipFilterTest : public testing::Test {
 protected:
  /* What arrives behind the filter when the body comes in pieces that end at these places. */
  std::string inflated(const std::string& body, const std::vector<std::size_t>& cuts = {}) {
    auto sink = makeGzipFilteredSink(std::make_unique<StringStreamSink>());
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(body.data());
    std::size_t done = 0;
    for (const std::size_t cut : cuts) {
      sink->write(bytes + done, cut - done);
      done = cut;
    }
    sink->write(bytes + done, body.size() - done);
    sink->finish();
    std::string text;
    sink->getContents(text);
    return text;
  }

  test::LogCapture _log;
  std::mt19937 _random{20261122};
};

TEST_F(GzipFilterTest, AnySplitGivesTheSameBytes) {
  const auto seed = std::random_device{}();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 random(seed);
  const std::string first = sampleText(3 << 20, random);
  const std::string second = sampleText(777, random);
  const std::string members =
      test::gzip(first) + test::gzip(second) + test::gzip("") + std::string("\0\0\x1fpadding", 10);
  const std::string zlib = zlibCompressed(second);

  for (int round = 0; round < 30; ++round) {
    std::vector<std::size_t> cuts;
    for (std::size_t at = 0; at < members.size();
         at += round % 2 == 0 ? random() % 5 + (members.size() - at < 2000 ? 0 : 500)
                              : random() % 70000) {
      cuts.push_back(at);
    }
    ASSERT_TRUE(inflated(members, cuts) == first + second);
  }
  std::vector<std::size_t> everyByte(zlib.size());
  for (std::size_t i = 0; i < everyByte.size(); ++i) {
    everyByte[i] = i;
  }
  EXPECT_EQ(inflated(zlib, everyByte), second);
  EXPECT_EQ(inflated(zlib), second);
  EXPECT_EQ(inflated(""), "");
  EXPECT_THAT(_log.messages(), IsEmpty());
}

TEST_F(GzipFilterTest, CorruptBodiesAreLoggedAndLost) {
  const std::string text = sampleText(100000, _random);
  std::string body = test::gzip(text);
  EXPECT_EQ(text.rfind(inflated(body.substr(0, body.size() / 2)), 0), 0u);
  EXPECT_EQ(inflated("no gzip at all"), "");
  body[body.size() - 6] = static_cast<char>(~body[body.size() - 6]);  // its checksum
  inflated(body, {100, 200});
  EXPECT_THAT(_log.messages(),
              ElementsAre("The compressed body ends before the end of its stream",
                          "ZipStreamHandler failed to write: Data Error. Message incorrect header "
                          "check",
                          "ZipStreamHandler failed to flush: Error.",
                          HasSubstr("failed to write: Data Error. Message incorrect data check"),
                          "ZipStreamHandler failed to flush: Error."));

  // Every byte damaged in turn: whatever comes out is no crash, and never more than was put in.
  const std::string good = test::gzip(sampleText(300, _random));
  for (std::size_t i = 0; i < good.size(); ++i) {
    std::string bad = good;
    bad[i] = static_cast<char>(bad[i] ^ (1 << (_random() % 8)));
    EXPECT_LE(inflated(bad, {i / 2, i}).size(), 70000u);
  }
}

}  // namespace
}  // namespace kovo
