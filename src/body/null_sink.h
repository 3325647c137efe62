#pragma once

#include "body/data_sink.h"

namespace kovo {

class NullSink : public DataSink {
 public:
  void write(const std::uint8_t*, std::size_t) override {}
};

}  // namespace kovo
