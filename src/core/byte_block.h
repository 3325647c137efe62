#pragma once

#include <cstddef>
#include <cstdint>
#include <utility>

namespace kovo {

// One exclusively owned block of kCapacity bytes from a process-wide pool. Recycled blocks keep
// their pages, so that moving bytes through them costs no page faults and no clearing; the content
// of a fresh block is undefined. Memory in use is bounded by the blocks that are held; at most a
// few dozen idle ones are kept, and none after trimPool().
class ByteBlock {
 public:
  static constexpr std::size_t kCapacity = 1024 * 1024;

  ByteBlock() = default;
  ByteBlock(ByteBlock&& other) noexcept : _data(std::exchange(other._data, nullptr)) {}
  ByteBlock& operator=(ByteBlock&& other) noexcept {
    std::swap(_data, other._data);
    return *this;
  }
  ByteBlock(const ByteBlock&) = delete;
  ByteBlock& operator=(const ByteBlock&) = delete;
  ~ByteBlock();

  // Throws std::bad_alloc.
  static ByteBlock allocate();
  // Frees the idle blocks (when the last engine is destroyed).
  static void trimPool() noexcept;

  std::uint8_t* data() { return _data; }
  const std::uint8_t* data() const { return _data; }
  explicit operator bool() const { return _data != nullptr; }

 private:
  std::uint8_t* _data = nullptr;
};

}  // namespace kovo
