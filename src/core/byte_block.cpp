#include "core/byte_block.h"

#include <sys/mman.h>

#include <mutex>
#include <new>
#include <vector>

namespace kovo {
namespace {

// Enough for 16 connections with a default chunk each; more would only hold memory back.
constexpr std::size_t kMostIdleBlocks = 48;

struct Pool {
  std::mutex mutex;
  std::vector<std::uint8_t*> idle;  // last in, first out: the warmest block goes out first

  Pool() { idle.reserve(kMostIdleBlocks); }
};

// Never destroyed: blocks may be released by threads that outlive static destruction.
Pool& pool() {
  static Pool* instance = new Pool;
  return *instance;
}

void release(std::uint8_t* data) noexcept {
  ::munmap(data, ByteBlock::kCapacity);
}

}  // namespace

ByteBlock ByteBlock::allocate() {
  ByteBlock block;
  {
    std::lock_guard<std::mutex> guard(pool().mutex);
    auto& idle = pool().idle;
    if (!idle.empty()) {
      block._data = idle.back();
      idle.pop_back();
      return block;
    }
  }
  void* data =
      ::mmap(nullptr, kCapacity, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (data == MAP_FAILED) {
    throw std::bad_alloc();
  }
  block._data = static_cast<std::uint8_t*>(data);
  return block;
}

ByteBlock::~ByteBlock() {
  if (_data == nullptr) {
    return;
  }
  {
    std::lock_guard<std::mutex> guard(pool().mutex);
    auto& idle = pool().idle;
    if (idle.size() < kMostIdleBlocks) {
      idle.push_back(_data);
      return;
    }
  }
  release(_data);
}

void ByteBlock::trimPool() noexcept {
  std::lock_guard<std::mutex> guard(pool().mutex);
  for (std::uint8_t* data : pool().idle) {
    release(data);
  }
  pool().idle.clear();
}

}  // namespace kovo
