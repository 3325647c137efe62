#include "body/filtered_sink.h"

#include <utility>

#include "core/assertion.h"

namespace kovo {

FilteredSink::FilteredSink(std::unique_ptr<DataSink> nestedSink, std::unique_ptr<DataFilter> filter)
    : _nestedSink(std::move(nestedSink)), _filter(std::move(filter)), _handler(*_nestedSink) {
  KOVO_ASSERT(dynamic_cast<FilteredSink*>(_nestedSink.get()) == nullptr,
              "dynamic_cast<FilteredSink *>(nestedSink.get()) == nullptr && \"Filtering a "
              "FilteredSink - was that expected?\"");
}

// What a filter cannot decode is lost and logged there; the body goes on.
void FilteredSink::finish() {
  _filter->flush(_handler);
  _nestedSink->finish();
}

void FilteredSink::write(const std::uint8_t* data, std::size_t size) {
  DataBlock input{data, size};
  _filter->filter(input, _handler);
}

}  // namespace kovo
