#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "body/byte_range_file_sink.h"
#include "body/filtered_sink.h"
#include "body/memory_sink.h"
#include "body/string_stream_sink.h"
#include "core/assertion.h"
#include "support/fake_transfer.h"
#include "support/resource.h"
#include "support/temp_dir.h"

namespace kovo {
namespace {

void write(DataSink& sink, const std::string& text) {
  sink.write(reinterpret_cast<const std::uint8_t*>(text.data()), text.size());
}

using Writes = std::vector<std::pair<std::uint64_t, std::size_t>>;

class SinksTest : public testing::Test {
 protected:
  SinksTest() { test::writeFile(_path, ""); }

  test::TempDir _directory;
  const std::string _path = _directory.file("output");
  test::FakeTransfer _transfer;
  std::shared_ptr<test::FakeCallbackHandler> _client =
      std::make_shared<test::FakeCallbackHandler>();
};

TEST_F(SinksTest, MemoryGetsOffsetsOfTheResource) {
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

TEST_F(SinksTest, CollectedTextIsBounded) {
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

TEST_F(SinksTest, WholeFileIsWrittenStraightThrough) {
  FileSink sink(_transfer, _client, _path);
  write(sink, "abc");
  ByteBlock block = ByteBlock::allocate();
  block.data()[0] = 'd';
  sink.writeBlock(block, 1);
  sink.finish();
  EXPECT_TRUE(block);
  EXPECT_EQ(_transfer.file, "abcd");
  EXPECT_EQ(_transfer.directWrites, (Writes{{0, 3}, {3, 1}}));
  EXPECT_TRUE(_transfer.blockWrites.empty());
  EXPECT_EQ(_client->progress, 4u);
}

TEST_F(SinksTest, DeletedOutputIsAnErrorAndStaysDeleted) {
  std::filesystem::remove(_path);
  FileSink sink(_transfer, _client, _path);
  write(sink, "abc");
  EXPECT_TRUE(_transfer.error);
  EXPECT_FALSE(std::filesystem::exists(_path));
  EXPECT_EQ(_client->progress, 0u);
}

TEST_F(SinksTest, RangeHandsItsBlocksOver) {
  _transfer.keepBlocks = true;
  ByteRangeFileSink sink(_transfer, _client, _path, KovoRange(1000, 1000));
  ByteBlock block = ByteBlock::allocate();
  sink.writeBlock(block, 600);
  EXPECT_FALSE(block);
  write(sink, std::string(400, 'x'));
  sink.finish();
  EXPECT_EQ(_transfer.blockWrites, (Writes{{1000, 600}, {1600, 400}}));
  EXPECT_TRUE(_transfer.directWrites.empty());
  ASSERT_EQ(_transfer.completedRanges.size(), 1u);
  EXPECT_EQ(_transfer.completedRanges[0].start, 1000);
  EXPECT_EQ(_transfer.completedRanges[0].length, 1000);

  sink.discard();
  EXPECT_EQ(_client->progress, 0u);
  EXPECT_EQ(_transfer.discardedRanges.size(), 1u);
}

TEST_F(SinksTest, ResetRangeServesTheWholeFile) {
  ByteRangeFileSink sink(_transfer, _client, _path, KovoRange(1000, 1000));
  sink.reset();
  write(sink, "abc");
  ByteBlock block = ByteBlock::allocate();
  sink.writeBlock(block, 5);
  sink.finish();
  EXPECT_EQ(_transfer.directWrites, (Writes{{0, 3}, {3, 5}}));
  EXPECT_TRUE(_transfer.blockWrites.empty());
  ASSERT_EQ(_transfer.completedRanges.size(), 1u);
  EXPECT_EQ(_transfer.completedRanges[0].length, 0);
  sink.discard();
  EXPECT_TRUE(_transfer.discardedRanges.empty());
}

#ifndef NDEBUG
TEST_F(SinksTest, FilterAroundAFilterIsReported) {
  class Nothing : public DataFilter {
   public:
    bool filter(DataBlock& input, FilteredDataHandler&) override {
      input.size = 0;
      return true;
    }
    bool flush(FilteredDataHandler&) override { return true; }
  };
  static int reports = 0;
  setAssertionHandler([](const char*, const char*, int) { ++reports; });
  auto inner = std::make_unique<FilteredSink>(std::make_unique<StringStreamSink>(),
                                              std::make_unique<Nothing>());
  EXPECT_EQ(reports, 0);
  FilteredSink outer(std::move(inner), std::make_unique<Nothing>());
  setAssertionHandler(nullptr);
  EXPECT_EQ(reports, 1);
  write(outer, "swallowed");
  std::string text;
  outer.getContents(text);
  EXPECT_EQ(text, "");
}
#endif

}  // namespace
}  // namespace kovo
