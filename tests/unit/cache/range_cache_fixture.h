#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "cache/sqlite_backed_cache.h"
#include "support/temp_dir.h"
#include "unit/cache/cache_fixture.h"

namespace kovo::test {

constexpr std::uint64_t kMebibyte = 1024 * 1024;

class RangeCache : public ::testing::Test {
 protected:
  using Bytes = std::vector<std::uint8_t>;

  RangeCache() { open(); }
  void open(std::uint64_t totalLimit = 64 * kMebibyte, std::uint64_t entryLimit = 16 * kMebibyte) {
    cache.reset();
    cache = std::make_unique<SqliteBackedCache>(database, totalLimit, entryLimit);
  }

  // The resource's bytes: each tells its place.
  static Bytes bytesAt(std::uint64_t offset, std::size_t count) {
    Bytes bytes(count);
    for (std::size_t i = 0; i < count; ++i) {
      const std::uint64_t place = (offset + i) * 2654435761u;
      bytes[i] = static_cast<std::uint8_t>(place >> 13);
    }
    return bytes;
  }
  static HeaderList headers(std::uint64_t first, std::size_t count, const std::string& etag,
                            const std::string& lastModified = {}) {
    HeaderList list{{"Content-Range", "bytes " + std::to_string(first) + "-" +
                                          std::to_string(first + count - 1) + "/*"},
                    {"Content-Length", std::to_string(count)}};
    if (!etag.empty()) {
      list.emplace_back("ETag", etag);
    }
    if (!lastModified.empty()) {
      list.emplace_back("Last-Modified", lastModified);
    }
    return list;
  }
  void store(std::uint64_t first, std::size_t count, const std::string& etag = "\"e\"",
             const std::string& lastModified = {}, const std::string& url = "url") {
    const Bytes bytes = bytesAt(first, count);
    cache->storeData(url, headers(first, count, etag, lastModified), bytes.data(), bytes.size());
  }
  static BlockList bodyOf(const Bytes& bytes) {
    BlockList body;
    for (std::size_t offset = 0; offset < bytes.size(); offset += 100000) {
      body.append(bytes.data() + offset, std::min<std::size_t>(100000, bytes.size() - offset));
    }
    return body;
  }
  HttpGetCache::Status get(std::int64_t start, std::int64_t length,
                           const CacheValidators& validators = {"\"e\"", ""},
                           const std::string& url = "url") {
    Bytes buffer(static_cast<std::size_t>(length));
    const auto status =
        cache->getData(url, validators, KovoRange(start, length), buffer.data(), buffer.size());
    if (status == HttpGetCache::Hit) {
      EXPECT_EQ(buffer, bytesAt(static_cast<std::uint64_t>(start), buffer.size()));
    }
    return status;
  }
  std::string rows() { return sql(database, "SELECT COUNT(*) FROM CacheEntries"); }

  TempDir directory;
  std::string database = directory.file("basekovoDB.sqlite");
  std::unique_ptr<SqliteBackedCache> cache;
};

}  // namespace kovo::test
