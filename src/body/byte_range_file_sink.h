#pragma once

#include <memory>
#include <string>

#include "body/file_sink.h"
#include "core/kovo_range.h"

namespace kovo {

// A response body for one range of a file: blocks go to the transfer's writeBlock, which may keep
// them until the range is complete. After reset it serves the whole file, straight through.
class ByteRangeFileSink : public FileSink {
 public:
  ByteRangeFileSink(AbstractTransfer& transfer,
                    std::shared_ptr<ClientCallbackHandler> callbackHandler, std::string path,
                    const KovoRange& range);

  void finish() override;
  void write(const std::uint8_t* data, std::size_t size) override;
  void writeBlock(ByteBlock& block, std::size_t size) override;
  void reset() override;
  void discard() override;

 private:
  KovoRange _range;
  bool _wholeFile = false;
};

}  // namespace kovo
