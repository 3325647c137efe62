#include "cache/store_queue.h"

#include <gtest/gtest.h>

#include <atomic>
#include <future>

namespace kovo {
namespace {

constexpr std::chrono::milliseconds kLong{20000};

StoreQueue::Entry entryOf(std::size_t blocks) {
  StoreQueue::Entry entry;
  const std::vector<std::uint8_t> bytes(blocks * ByteBlock::kCapacity);
  entry.body.append(bytes.data(), bytes.size());
  return entry;
}

TEST(StoreQueue, DropsWhatFindsNoRoomAndStoresTheRest) {
  std::promise<void> start;
  std::shared_future<void> started = start.get_future().share();
  std::atomic<int> stored{0};
  StoreQueue* self = nullptr;
  StoreQueue queue(4 * ByteBlock::kCapacity, [&] {
    started.wait();
    stored += static_cast<int>(self->take(ByteBlock::kCapacity).size());
  });
  self = &queue;
  EXPECT_FALSE(queue.push(entryOf(5)));
  EXPECT_TRUE(queue.push(entryOf(3)));
  EXPECT_FALSE(queue.push(entryOf(2)));
  EXPECT_TRUE(queue.push(entryOf(1)));
  EXPECT_FALSE(queue.waitUntilIdle(std::chrono::milliseconds(0)));
  start.set_value();
  EXPECT_TRUE(queue.waitUntilIdle(kLong));
  EXPECT_EQ(stored, 2);
  EXPECT_TRUE(queue.push(entryOf(4)));
  queue.stop(kLong, [] { ADD_FAILURE() << "gave up on a queue that was moving"; });
  EXPECT_EQ(stored, 3);
  EXPECT_FALSE(queue.push(entryOf(1)));
}

TEST(StoreQueue, GivesUpOnAStoreThatDoesNotEnd) {
  std::promise<void> interrupted;
  std::shared_future<void> end = interrupted.get_future().share();
  StoreQueue* self = nullptr;
  StoreQueue queue(4 * ByteBlock::kCapacity, [&] {
    self->take(1);
    end.wait();
  });
  self = &queue;
  queue.push(entryOf(1));
  queue.push(entryOf(1));
  queue.stop(std::chrono::milliseconds(10), [&] { interrupted.set_value(); });
  EXPECT_TRUE(queue.take(1).empty());
}

}  // namespace
}  // namespace kovo
