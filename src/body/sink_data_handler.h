#pragma once

#include "body/data_sink.h"
#include "body/filtered_data_handler.h"

namespace kovo {

// Writes filtered blocks to a sink, which outlives it; empty ones are ignored.
class SinkDataHandler : public FilteredDataHandler {
 public:
  explicit SinkDataHandler(DataSink& sink) : _sink(sink) {}
  void handle(const std::uint8_t* data, std::size_t size) override {
    if (size != 0) {
      _sink.write(data, size);
    }
  }

 private:
  DataSink& _sink;
};

}  // namespace kovo
