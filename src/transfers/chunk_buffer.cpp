#include "transfers/chunk_buffer.h"

#include <utility>

namespace kovo {

void ChunkBuffer::keep(std::uint64_t offset, ByteBlock block, std::size_t size) {
  ScopedLock guard(_lock);
  _pendingData.try_emplace(offset, Piece{std::move(block), size});
}

void ChunkBuffer::discard(const KovoRange& range) {
  ScopedLock guard(_lock);
  const auto first = _pendingData.lower_bound(static_cast<std::uint64_t>(range.start));
  const auto last =
      range.length == 0
          ? _pendingData.end()
          : _pendingData.lower_bound(static_cast<std::uint64_t>(range.start + range.length));
  _pendingData.erase(first, last);
}

bool ChunkBuffer::take(std::uint64_t offset, Piece& piece) {
  ScopedLock guard(_lock);
  const auto found = _pendingData.find(offset);
  if (found == _pendingData.end()) {
    return false;
  }
  piece = std::move(found->second);
  _pendingData.erase(found);
  return true;
}

bool ChunkBuffer::isQueueFull() const {
  return _queuedBytes >= kMostQueuedBytes && _rangesToFlush.size() >= kFewestQueuedRanges;
}

void ChunkBuffer::complete(const KovoRange& range, const Write& write, const Written& written) {
  {
    ScopedLock guard(_lock);
    while (_flushing && isQueueFull()) {
      _drained.wait(guard);
    }
    if (_flushing) {
      _rangesToFlush.push_back(range);
      _queuedBytes += static_cast<std::uint64_t>(range.length);
      return;
    }
    _flushing = true;
  }
  try {
    flush(range, write, written);
  } catch (...) {
    // Ends the transfer; the others must not wait for a writer that is gone.
    ScopedLock guard(_lock);
    _flushing = false;
    _drained.notify_all();
    throw;
  }
}

void ChunkBuffer::flush(KovoRange current, const Write& write, const Written& written) {
  for (;;) {
    auto position = static_cast<std::uint64_t>(current.start);
    std::uint64_t count = 0;
    bool good = true;
    Piece piece;
    while (good && (current.length == 0 || count < static_cast<std::uint64_t>(current.length)) &&
           take(position, piece)) {
      good = write(position, piece.block.data(), piece.size);
      position += piece.size;
      count += piece.size;
    }
    if (good) {
      written(current, count);
    }
    ScopedLock guard(_lock);
    if (_rangesToFlush.empty()) {
      _flushing = false;
      _drained.notify_all();
      return;
    }
    current = _rangesToFlush.front();
    _rangesToFlush.pop_front();
    _queuedBytes -= static_cast<std::uint64_t>(current.length);
    _drained.notify_one();
  }
}

}  // namespace kovo
