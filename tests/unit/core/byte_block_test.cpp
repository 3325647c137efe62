#include "core/byte_block.h"

#include <gtest/gtest.h>

#include <set>
#include <vector>

namespace kovo {
namespace {

TEST(ByteBlockTest, ReleasedBlockIsHandedOutAgain) {
  ByteBlock::trimPool();
  const std::uint8_t* first = nullptr;
  {
    ByteBlock block = ByteBlock::allocate();
    first = block.data();
    block.data()[0] = 1;
    block.data()[ByteBlock::kCapacity - 1] = 2;
  }
  const ByteBlock again = ByteBlock::allocate();
  EXPECT_EQ(again.data(), first);
  EXPECT_EQ(again.data()[ByteBlock::kCapacity - 1], 2) << "neither freed nor cleared";
}

TEST(ByteBlockTest, HeldBlocksAreDistinctHoweverManyThereAre) {
  constexpr std::size_t kCount = 100;  // more than are kept idle
  for (int round = 0; round < 2; ++round) {
    std::vector<ByteBlock> blocks;
    std::set<const std::uint8_t*> places;
    for (std::size_t i = 0; i < kCount; ++i) {
      blocks.push_back(ByteBlock::allocate());
      blocks.back().data()[0] = static_cast<std::uint8_t>(i);
      places.insert(blocks.back().data());
    }
    EXPECT_EQ(places.size(), kCount);
    for (std::size_t i = 0; i < kCount; ++i) {
      EXPECT_EQ(blocks[i].data()[0], i);
    }
  }
  ByteBlock::trimPool();
}

}  // namespace
}  // namespace kovo
