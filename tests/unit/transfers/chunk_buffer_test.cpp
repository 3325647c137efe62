#include "transfers/chunk_buffer.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <future>
#include <mutex>
#include <thread>
#include <vector>

namespace kovo {
namespace {

ByteBlock blockOf(std::uint8_t value, std::size_t size) {
  ByteBlock block = ByteBlock::allocate();
  std::memset(block.data(), value, size);
  return block;
}

TEST(ChunkBuffer, WritesARangeInOffsetOrderAndStopsAtAGap) {
  ChunkBuffer buffer;
  buffer.keep(30, blockOf(3, 10), 10);
  buffer.keep(10, blockOf(1, 20), 20);
  buffer.keep(10, blockOf(9, 20), 20);  // the first block of an offset stays
  buffer.keep(50, blockOf(5, 10), 10);  // behind a gap: another range's
  std::vector<std::pair<std::uint64_t, int>> writes;
  std::uint64_t counted = 0;
  buffer.complete(
      KovoRange(10, 60),
      [&](std::uint64_t offset, const std::uint8_t* data, std::size_t) {
        writes.emplace_back(offset, *data);
        return true;
      },
      [&](const KovoRange&, std::uint64_t written) { counted = written; });
  EXPECT_EQ(writes, (decltype(writes){{10, 1}, {30, 3}}));
  EXPECT_EQ(counted, 30U);
}

TEST(ChunkBuffer, DiscardsWhatLiesWithinTheRangeOnly) {
  ChunkBuffer buffer;
  buffer.keep(0, blockOf(1, 10), 10);
  buffer.keep(10, blockOf(2, 10), 10);
  buffer.keep(20, blockOf(3, 10), 10);
  buffer.discard(KovoRange(10, 10));
  std::uint64_t total = 0;
  const auto write = [](std::uint64_t, const std::uint8_t*, std::size_t) { return true; };
  const auto count = [&](const KovoRange&, std::uint64_t written) { total += written; };
  buffer.complete(KovoRange(0, 30), write, count);
  EXPECT_EQ(total, 10U);
  buffer.complete(KovoRange(20, 10), write, count);
  EXPECT_EQ(total, 20U);
}

// A range left to the thread that is writing is written by it, and reported after its bytes.
TEST(ChunkBuffer, TheWriterAlsoWritesWhatOthersCompleteMeanwhile) {
  ChunkBuffer buffer;
  buffer.keep(0, blockOf(1, 10), 10);
  buffer.keep(10, blockOf(2, 10), 10);
  std::promise<void> writing;
  std::promise<void> goOn;
  std::vector<std::uint64_t> events;
  std::thread writer([&] {
    bool first = true;
    buffer.complete(
        KovoRange(0, 10),
        [&](std::uint64_t offset, const std::uint8_t*, std::size_t) {
          if (first) {
            first = false;
            writing.set_value();
            goOn.get_future().wait();
          }
          events.push_back(offset);
          return true;
        },
        [&](const KovoRange& range, std::uint64_t) {
          events.push_back(1000 + static_cast<std::uint64_t>(range.start));
        });
  });
  writing.get_future().wait();
  bool otherWrote = false;
  buffer.complete(
      KovoRange(10, 10),
      [&](std::uint64_t, const std::uint8_t*, std::size_t) { return otherWrote = true; },
      [&](const KovoRange&, std::uint64_t) { otherWrote = true; });
  goOn.set_value();
  writer.join();
  EXPECT_FALSE(otherWrote);
  EXPECT_EQ(events, (std::vector<std::uint64_t>{0, 1000, 10, 1010}));
}

TEST(ChunkBuffer, AFailedWriteReportsNothingAndLeavesTheBufferUsable) {
  ChunkBuffer buffer;
  buffer.keep(0, blockOf(1, 10), 10);
  buffer.keep(10, blockOf(1, 10), 10);
  bool reported = false;
  buffer.complete(
      KovoRange(0, 20), [](std::uint64_t, const std::uint8_t*, std::size_t) { return false; },
      [&](const KovoRange&, std::uint64_t) { reported = true; });
  EXPECT_FALSE(reported);
  std::uint64_t total = 0;
  buffer.complete(
      KovoRange(10, 10), [](std::uint64_t, const std::uint8_t*, std::size_t) { return true; },
      [&](const KovoRange&, std::uint64_t written) { total = written; });
  EXPECT_EQ(total, 10U);
}

TEST(ChunkBuffer, ManyThreadsLoseNoByteAndNeverWriteTogether) {
  constexpr int kThreads = 8;
  constexpr int kRangesPerThread = 50;
  constexpr std::int64_t kLength = 64;
  ChunkBuffer buffer;
  std::vector<std::uint8_t> file(kThreads * kRangesPerThread * kLength);
  std::atomic<int> writers{0};
  std::atomic<bool> together{false};
  std::atomic<std::uint64_t> recorded{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < kRangesPerThread; ++i) {
        const std::int64_t start = (i * kThreads + t) * kLength;
        buffer.keep(static_cast<std::uint64_t>(start), blockOf(7, kLength / 2), kLength / 2);
        buffer.keep(static_cast<std::uint64_t>(start + kLength / 2), blockOf(8, kLength / 2),
                    kLength / 2);
        buffer.complete(
            KovoRange(start, kLength),
            [&](std::uint64_t offset, const std::uint8_t* data, std::size_t size) {
              together = together || writers.fetch_add(1) != 0;
              std::memcpy(file.data() + offset, data, size);
              writers.fetch_sub(1);
              return true;
            },
            [&](const KovoRange&, std::uint64_t written) { recorded += written; });
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_FALSE(together);
  EXPECT_EQ(recorded, file.size());
  for (std::size_t i = 0; i < file.size(); ++i) {
    ASSERT_EQ(file[i], i % kLength < kLength / 2 ? 7 : 8) << i;
  }
}

}  // namespace
}  // namespace kovo
