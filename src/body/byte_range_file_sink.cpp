#include "body/byte_range_file_sink.h"

#include <algorithm>
#include <utility>

#include "core/abstract_transfer.h"

namespace kovo {

ByteRangeFileSink::ByteRangeFileSink(AbstractTransfer& transfer,
                                     std::shared_ptr<ClientCallbackHandler> callbackHandler,
                                     std::string path, const KovoRange& range)
    : FileSink(transfer, std::move(callbackHandler), std::move(path)), _range(range) {
  _position = static_cast<std::uint64_t>(range.start);
}

void ByteRangeFileSink::finish() {
  transfer().rangeCompleted(_range, stream());
}

void ByteRangeFileSink::write(const std::uint8_t* data, std::size_t size) {
  if (_wholeFile) {
    FileSink::write(data, size);
    return;
  }
  ByteBlock block;
  for (std::size_t done = 0; done < size;) {
    if (!block) {
      block = ByteBlock::allocate();
    }
    const std::size_t count = std::min(size - done, ByteBlock::kCapacity);
    std::copy_n(data + done, count, block.data());
    writeBlock(block, count);
    done += count;
  }
}

void ByteRangeFileSink::writeBlock(ByteBlock& block, std::size_t size) {
  if (_wholeFile) {
    FileSink::write(block.data(), size);
    return;
  }
  transfer().writeBlock(_position, block, size, stream());
  advance(size);
}

void ByteRangeFileSink::reset() {
  FileSink::reset();
  _range = KovoRange();
  _wholeFile = true;
}

void ByteRangeFileSink::discard() {
  FileSink::discard();
  if (!_wholeFile) {
    transfer().rangeDiscarded(_range);
  }
}

}  // namespace kovo
