#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <string>

#include "body/byte_range_file_sink.h"
#include "body/byte_range_file_source.h"
#include "body/memory_sink.h"
#include "body/memory_source.h"
#include "body/string_stream_sink.h"
#include "support/fake_transfer.h"
#include "support/resource.h"
#include "support/temp_dir.h"

namespace kovo {
namespace {

using test::FakeCallbackHandler;

/* Everything a source delivers, in reads of this size; stops at the first failure or empty read. */
std::string drain(DataSource& source, std::size_t size) {
  std::string bytes;
  std::string buffer(size, '\xff');
  std::size_t count = 0;
  while (source.read(reinterpret_cast<std::uint8_t*>(buffer.data()), size, count) && count != 0) {
    bytes.append(buffer, 0, count);
  }
  return bytes;
}

void write(DataSink& sink, const std::string& text) {
  sink.write(reinterpret_cast<const std::uint8_t*>(text.data()), text.size());
}

class BodyTest : public testing::Test {
 protected:
  test::TempDir _directory;
  std::shared_ptr<FakeCallbackHandler> _client = std::make_shared<FakeCallbackHandler>();
};

TEST_F(BodyTest, RangesOfAFile) {
  const std::string path = _directory.file("body");
  const std::string all = test::Resource(7, 1000).all();
  test::writeFile(path, all);
  ByteRangeFileSource middle(_client, KovoRange(100, 900), path, KovoRange(100, 100));
  EXPECT_EQ(middle.getContentLength(), 100u);
  EXPECT_TRUE(middle.isFirstChunk());
  EXPECT_FALSE(middle.isLastChunk());
  EXPECT_EQ(drain(middle, 33), all.substr(100, 100));
  EXPECT_EQ(middle.getBytesRead(), 100u);

  ByteRangeFileSource last(_client, KovoRange(0, 1000), path, KovoRange(900, 100));
  EXPECT_FALSE(last.isFirstChunk());
  EXPECT_TRUE(last.isLastChunk());
  EXPECT_EQ(drain(last, 1 << 20), all.substr(900));

  ByteRangeFileSource beyond(_client, KovoRange(0, 1000), path, KovoRange(1000, 0));
  EXPECT_FALSE(beyond.hasMoreData());
}

TEST_F(BodyTest, ClientsBodyIsBoundedByTheBuffer) {
  _client->requestBody = "0123456789";
  MemorySource source(_client);
  EXPECT_EQ(source.getContentLength(), 10u);
  EXPECT_EQ(drain(source, 4), "0123456789");
  EXPECT_EQ(_client->progress, 10u);

  class Boaster : public FakeCallbackHandler {
    void invokeRequestBodyCallback(std::uint64_t, std::uint8_t*, std::uint64_t* bytesRead,
                                   std::uint64_t maxLength) override {
      *bytesRead = maxLength + 1;
    }
  };
  MemorySource boasting(std::make_shared<Boaster>());
  std::uint8_t buffer[8];
  std::size_t count = 0;
  std::string message;
  EXPECT_FALSE(boasting.read(buffer, sizeof buffer, count));
  EXPECT_EQ(count, 0u);
  EXPECT_EQ(boasting.getError(message), KOVO_ERROR_TOO_MUCH_DATA);
}

TEST_F(BodyTest, MemoryGetsOffsetsOfTheResource) {
  MemorySink sink(_client, 4096, true);
  sink.write(nullptr, 5);
  write(sink, "");
  write(sink, "abc");
  write(sink, "de");
  EXPECT_EQ(_client->progress, 5u);
  sink.reset();
  EXPECT_EQ(_client->progress, 0u);
  write(sink, "f");
  EXPECT_EQ(_client->deliveries,
            (std::vector<std::pair<std::uint64_t, std::uint64_t>>{{4096, 3}, {4099, 2}, {0, 1}}));
}

TEST_F(BodyTest, CollectedTextIsBounded) {
  StringStreamSink sink;
  write(sink, "abc");
  write(sink, "def");
  std::string text;
  sink.getContents(text);
  EXPECT_EQ(text, "abcdef");
  write(sink, std::string(StringStreamSink::kCapacity, 'x'));
  write(sink, "more");
  sink.getContents(text);
  EXPECT_EQ(text.size(), StringStreamSink::kCapacity);
}

TEST_F(BodyTest, DeletedOutputIsAnErrorAndStaysDeleted) {
  const std::string path = _directory.file("deleted");
  test::FakeTransfer transfer;
  FileSink sink(transfer, _client, path);
  write(sink, "abc");
  EXPECT_TRUE(transfer.error);
  EXPECT_FALSE(std::filesystem::exists(path));
  EXPECT_EQ(_client->progress, 0u);
}

}  // namespace
}  // namespace kovo
