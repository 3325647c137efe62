#include "body/string_stream_sink.h"

#include <algorithm>

namespace kovo {

void StringStreamSink::write(const std::uint8_t* data, std::size_t size) {
  const std::size_t count = std::min(size, kCapacity - _contents.size());
  _contents.append(data, data + count);
}

}  // namespace kovo
