#pragma once

#include <cstddef>
#include <cstdint>

namespace kovo {

// Takes the blocks that a filter produces.
class FilteredDataHandler {
 public:
  virtual ~FilteredDataHandler() = default;
  virtual void handle(const std::uint8_t* data, std::size_t size) = 0;
};

}  // namespace kovo
