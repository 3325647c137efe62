#include <gtest/gtest.h>
#include <zlib.h>

#include <random>
#include <string>
#include <vector>

#include "body/filtered_sink.h"
#include "body/gzip_input_filter.h"
#include "body/string_stream_sink.h"
#include "body/zip_stream_inflater.h"
#include "log/kovo_log.h"

namespace kovo {
namespace {

enum class Format { Zlib = 15, Gzip = 15 + 16 };

std::string compress(const std::string& text, Format format) {
  z_stream stream{};
  EXPECT_EQ(deflateInit2(&stream, 6, Z_DEFLATED, static_cast<int>(format), 8, Z_DEFAULT_STRATEGY),
            Z_OK);
  std::string bytes(deflateBound(&stream, text.size()) + 32, '\0');
  std::string input = text;
  stream.next_in = reinterpret_cast<Bytef*>(input.data());
  stream.avail_in = static_cast<uInt>(input.size());
  stream.next_out = reinterpret_cast<Bytef*>(bytes.data());
  stream.avail_out = static_cast<uInt>(bytes.size());
  EXPECT_EQ(deflate(&stream, Z_FINISH), Z_STREAM_END);
  bytes.resize(bytes.size() - stream.avail_out);
  deflateEnd(&stream);
  return bytes;
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
  GzipFilterTest() {
    registerLoggingCallback(
        [](std::uint32_t, const char* message, const char*, const char*, std::uint32_t,
           void* context) { static_cast<std::string*>(context)->append(message).append("\n"); },
        &_log);
  }
  ~GzipFilterTest() override { registerLoggingCallback(nullptr, nullptr); }

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

  std::string _log;
  std::mt19937 _random{20261122};
};

TEST_F(GzipFilterTest, AnySplitGivesTheSameBytes) {
  const auto seed = std::random_device{}();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 random(seed);
  const std::string first = sampleText(3 << 20, random);
  const std::string second = sampleText(777, random);
  const std::string members = compress(first, Format::Gzip) + compress(second, Format::Gzip) +
                              compress("", Format::Gzip) + std::string("\0\0\x1fpadding", 10);
  const std::string zlib = compress(second, Format::Zlib);

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
  EXPECT_EQ(_log, "");
}

TEST_F(GzipFilterTest, CorruptBodiesAreLoggedAndLost) {
  const std::string text = sampleText(100000, _random);
  std::string body = compress(text, Format::Gzip);
  EXPECT_EQ(inflated("no gzip at all"), "");
  EXPECT_EQ(_log,
            "ZipStreamHandler failed to write: Data Error. Message incorrect header check\n"
            "ZipStreamHandler failed to flush: Error.\n");

  _log.clear();
  body[body.size() - 6] = static_cast<char>(~body[body.size() - 6]);  // its checksum
  inflated(body, {100, 200});
  EXPECT_NE(_log.find("failed to write: Data Error. Message incorrect data check"),
            std::string::npos)
      << _log;

  // Every byte damaged in turn: whatever comes out is no crash, and never more than was put in.
  const std::string good = compress(sampleText(300, _random), Format::Gzip);
  for (std::size_t i = 0; i < good.size(); ++i) {
    std::string bad = good;
    bad[i] = static_cast<char>(bad[i] ^ (1 << (_random() % 8)));
    EXPECT_LE(inflated(bad, {i / 2, i}).size(), 70000u);
  }
}

TEST_F(GzipFilterTest, TruncatedBodyIsLogged) {
  const std::string text = sampleText(100000, _random);
  const std::string body = compress(text, Format::Gzip);
  EXPECT_EQ(text.rfind(inflated(body.substr(0, body.size() / 2)), 0), 0u);
  EXPECT_EQ(_log, "The compressed body ends before the end of its stream\n");
}

TEST_F(GzipFilterTest, BombComesInBlocksOfBoundedSize) {
  class Counter : public DataSink {
   public:
    Counter(std::size_t& total, std::size_t& largest) : _total(total), _largest(largest) {}
    void write(const std::uint8_t*, std::size_t size) override {
      _total += size;
      _largest = std::max(_largest, size);
    }

   private:
    std::size_t& _total;
    std::size_t& _largest;
  };
  const std::string bomb = compress(std::string(64 << 20, '\0'), Format::Gzip);
  std::size_t total = 0;
  std::size_t largest = 0;
  auto sink = makeGzipFilteredSink(std::make_unique<Counter>(total, largest));
  sink->write(reinterpret_cast<const std::uint8_t*>(bomb.data()), bomb.size());
  sink->finish();
  EXPECT_EQ(total, std::size_t{64} << 20);
  EXPECT_LE(largest, std::size_t{1} << 20);
}

}  // namespace
}  // namespace kovo
