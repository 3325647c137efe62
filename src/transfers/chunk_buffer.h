#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>

#include "core/byte_block.h"
#include "core/kovo_range.h"
#include "core/lock.h"

namespace kovo {

// The received bytes of running chunks, kept until their response is complete, and the rule by
// which completed ranges reach the file: in offset order, one writer at a time, while the other
// workers go on receiving. The writer also writes what others completed meanwhile, so a range is in
// the file at the latest when the writer's own request ends.
//
// Memory is bounded by what running requests hold plus completed ranges of kMostQueuedBytes, or two
// of them when chunks are larger than that.
class ChunkBuffer : boost::noncopyable {
 public:
  struct Piece {
    ByteBlock block;
    std::size_t size = 0;
  };
  // Writes size bytes at the offset; false when the transfer has failed and no more is to be
  // written.
  using Write =
      std::function<bool(std::uint64_t offset, const std::uint8_t* data, std::size_t size)>;
  // All bytes that were kept for the range are written; written counts them, from range.start on.
  using Written = std::function<void(const KovoRange& range, std::uint64_t written)>;

  // Takes the block. An offset that is already kept keeps its first block.
  void keep(std::uint64_t offset, ByteBlock block, std::size_t size);
  // Drops what is kept within the range.
  void discard(const KovoRange& range);
  // Writes the range, or leaves it to the thread that is writing (waiting while that one is too far
  // behind). Callbacks run without a lock.
  void complete(const KovoRange& range, const Write& write, const Written& written);

 private:
  // Connections of equal speed complete their chunks together. With too little room all but one
  // would wait for the writer, with the line idle; with more, memory grows for nothing.
  static constexpr std::uint64_t kMostQueuedBytes = 16 * 1024 * 1024;
  static constexpr std::size_t kFewestQueuedRanges = 2;

  bool take(std::uint64_t offset, Piece& piece);
  // Writes the range and what is queued meanwhile; then the role is free again.
  void flush(KovoRange current, const Write& write, const Written& written);
  bool isQueueFull() const KOVO_REQUIRES(_lock);

  RecursiveLock _lock;
  ConditionVariable _drained;
  std::map<std::uint64_t, Piece> _pendingData KOVO_GUARDED_BY(_lock);
  bool _flushing KOVO_GUARDED_BY(_lock) = false;
  std::deque<KovoRange> _rangesToFlush KOVO_GUARDED_BY(_lock);
  std::uint64_t _queuedBytes KOVO_GUARDED_BY(_lock) = 0;
};

}  // namespace kovo
