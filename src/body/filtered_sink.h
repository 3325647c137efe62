#pragma once

#include <memory>
#include <string>

#include "body/data_filter.h"
#include "body/data_sink.h"
#include "body/sink_data_handler.h"

namespace kovo {

// Passes a body through a filter before it reaches another sink, which is not a FilteredSink.
class FilteredSink : public DataSink {
 public:
  FilteredSink(std::unique_ptr<DataSink> nestedSink, std::unique_ptr<DataFilter> filter);

  void finish() override;
  void write(const std::uint8_t* data, std::size_t size) override;
  void getContents(std::string& contents) const override { _nestedSink->getContents(contents); }
  void reset() override { _nestedSink->reset(); }
  void discard() override { _nestedSink->discard(); }

 private:
  const std::unique_ptr<DataSink> _nestedSink;
  const std::unique_ptr<DataFilter> _filter;
  SinkDataHandler _handler;
};

}  // namespace kovo
