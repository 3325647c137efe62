#pragma once

#include <memory>
#include <string>

#include "body/data_source.h"

namespace kovo {

// Frames another source with a prefix and a suffix, each built on first use. One read delivers
// bytes of one of the three only; a prefix or suffix longer than the buffer comes in several reads.
class MimeSources : public DataSource {
 public:
  // source must not be null. filePath is empty for an upload from memory.
  MimeSources(std::unique_ptr<DataSource> source, std::string filePath);
  ~MimeSources() override;

  bool hasMoreData() const override;
  bool read(std::uint8_t* dataBuffer, std::size_t maxDataLength, std::size_t& bytesRead) override;
  std::uint64_t getBytesRead() const override;
  std::uint64_t getContentLength() override;
  std::string getContentType() const override;
  bool isFirstChunk() const override { return _source->isFirstChunk(); }
  bool isLastChunk() const override { return _source->isLastChunk(); }
  std::string getMD5Checksum() const override { return _source->getMD5Checksum(); }
  int getError(std::string& message) const override { return _source->getError(message); }
  void discard() override { _source->discard(); }

 protected:
  virtual std::string createMimePrefix() const = 0;
  virtual std::string createMimeSuffix() const = 0;

  const std::string& filePath() const { return _filePath; }

 private:
  // A text built on first use, and how much of it has been delivered.
  struct Frame {
    std::string text;
    bool built = false;
    std::size_t position = 0;

    bool hasMore() const { return position < text.size(); }
    std::size_t take(std::uint8_t* buffer, std::size_t capacity);
  };

  Frame& prefix() const;
  Frame& suffix() const;

  const std::unique_ptr<DataSource> _source;
  const std::string _filePath;
  bool _sourceExhausted = false;
  mutable Frame _mimePrefix;
  mutable Frame _mimeSuffix;
};

}  // namespace kovo
