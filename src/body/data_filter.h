#pragma once

#include <boost/noncopyable.hpp>
#include <cstddef>
#include <cstdint>

#include "body/filtered_data_handler.h"

namespace kovo {

// A block of bytes owned by somebody else; the front moves as bytes are consumed.
struct DataBlock {
  const std::uint8_t* data = nullptr;
  std::size_t size = 0;
};

// Transforms a body block by block.
class DataFilter : boost::noncopyable {
 public:
  virtual ~DataFilter() = default;
  // False when the body cannot be transformed; the rest of it is then lost.
  virtual bool filter(DataBlock& input, FilteredDataHandler& handler) = 0;
  // The body is over: emits what the filter still holds.
  virtual bool flush(FilteredDataHandler& handler) = 0;
};

}  // namespace kovo
