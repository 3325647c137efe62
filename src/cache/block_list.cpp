#include <algorithm>
#include <cstring>

#include "cache/http_get_cache.h"

namespace kovo {

void BlockList::append(const std::uint8_t* data, std::size_t count) {
  while (count > 0) {
    const std::size_t used = size % ByteBlock::kCapacity;
    if (size == blocks.size() * ByteBlock::kCapacity) {
      blocks.push_back(ByteBlock::allocate());
    }
    const std::size_t part = std::min(count, ByteBlock::kCapacity - used);
    std::memcpy(blocks[size / ByteBlock::kCapacity].data() + used, data, part);
    size += part;
    data += part;
    count -= part;
  }
}

}  // namespace kovo
