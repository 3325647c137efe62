#pragma once

#include <boost/noncopyable.hpp>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "core/byte_block.h"
#include "core/header_list.h"
#include "core/kovo_range.h"

namespace kovo {

// Bytes of one response body: every block full but the last.
struct BlockList {
  std::vector<ByteBlock> blocks;
  std::size_t size = 0;

  void append(const std::uint8_t* data, std::size_t count);
};

// What a cached range is validated by. An empty text matches nothing.
struct CacheValidators {
  std::string etag;
  std::string lastModifiedDate;
};

// Those of one version of a resource. A date does not count beside a strong tag: one second is long
// enough for two versions.
CacheValidators decisiveValidators(std::string etag, std::string lastModifiedDate);

// Byte ranges of resources fetched before. Thread-safe; failures only ever look like misses.
class HttpGetCache : boost::noncopyable {
 public:
  enum Status : int { Hit = 0, Miss = 1, BufferTooSmall = 2, NoDatabase = 3 };

  virtual ~HttpGetCache() = default;
  // The range's length when an entry covers it, else 0.
  virtual std::uint64_t getCachedLength(const std::string& url, const CacheValidators& validators,
                                        const KovoRange& range) = 0;
  virtual Status getData(const std::string& url, const CacheValidators& validators,
                         const KovoRange& range, std::uint8_t* buffer,
                         std::uint64_t bufferSize) = 0;
  // Keeps the complete body of one response, described by its headers.
  virtual void storeData(const std::string& url, const HeaderList& headers,
                         const std::uint8_t* data, std::size_t size) = 0;
  virtual bool isCacheable(const HeaderList& headers) const = 0;
  virtual void clear() = 0;

  // As storeData, off the caller's path: takes the body and returns at once; under pressure the
  // entry is dropped rather than the caller delayed.
  virtual void storeBody(const std::string& url, const HeaderList& headers, BlockList body) = 0;
};

}  // namespace kovo
