#pragma once

#include <memory>
#include <string>

#include "body/file_source.h"
#include "core/kovo_range.h"

namespace kovo {

// One part of a file as a request body.
class ByteRangeFileSource : public FileSource {
 public:
  ByteRangeFileSource(std::shared_ptr<ClientCallbackHandler> callbackHandler,
                      const KovoRange& transferRange, std::string path,
                      const KovoRange& chunkRange);

  std::uint64_t getContentLength() override;
  bool isFirstChunk() const override { return _isFirstChunk; }
  bool isLastChunk() const override { return _isLastChunk; }

 private:
  const KovoRange _range;
  bool _isFirstChunk = false;
  bool _isLastChunk = false;
};

}  // namespace kovo
