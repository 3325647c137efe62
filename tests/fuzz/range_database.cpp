// The database of the range cache as anybody may have left it.
#include <memory>
#include <vector>

#include "cache/sqlite_backed_cache.h"
#include "fuzz/database_fuzz.h"
#include "support/resource.h"
#include "support/temp_dir.h"

namespace kovo::test {
namespace {

using Bytes = std::vector<std::uint8_t>;

constexpr char kUrl[] = "http://host.test/file";
constexpr char kTag[] = "\"tag\"";
constexpr char kDate[] = "Wed, 18 Nov 2026 10:05:07 GMT";
constexpr std::uint64_t kTotalLimit = 1'000'000;
constexpr std::uint64_t kEntryLimit = 100'000;
constexpr std::size_t kSize = 500;

Bytes bytesAt(std::uint64_t offset, std::size_t count) {
  Bytes bytes(count);
  for (std::size_t i = 0; i < count; ++i) {
    bytes[i] = static_cast<std::uint8_t>(((offset + i) * 2654435761U) >> 13);
  }
  return bytes;
}

void store(SqliteBackedCache& cache, std::uint64_t first) {
  const Bytes bytes = bytesAt(first, kSize);
  const HeaderList headers{{"Content-Range", "bytes " + std::to_string(first) + "-" +
                                                 std::to_string(first + kSize - 1) + "/*"},
                           {"Content-Length", std::to_string(kSize)},
                           {"ETag", kTag},
                           {"Last-Modified", kDate}};
  cache.storeData(kUrl, headers, bytes.data(), bytes.size());
}

bool isServed(SqliteBackedCache& cache, std::uint64_t first, std::size_t length,
              const CacheValidators& validators) {
  Bytes buffer(length);
  const KovoRange range(static_cast<std::int64_t>(first), static_cast<std::int64_t>(length));
  if (cache.getData(kUrl, validators, range, buffer.data(), buffer.size()) != HttpGetCache::Hit) {
    return false;
  }
  require(buffer == bytesAt(first, length), "what is served is what was stored");
  return true;
}

struct Place {
  const TempDir directory{"kovo-fuzz-range"};
  const std::string database = directory.file("basekovoDB.sqlite");
  std::string own;

  Place() {
    {
      SqliteBackedCache cache(database, kTotalLimit, kEntryLimit);
      for (const std::uint64_t first : {0, 500, 2000}) {
        store(cache, first);
      }
    }
    own = readFile(database);
  }
};

}  // namespace

KOVO_FUZZ_TARGET(range_database) {
  static const Place place;
  emptyDirectory(place.directory.path().string());
  const bool isForeign = placeDatabase(input, place.database, place.own);
  {
    SqliteBackedCache cache(place.database, kTotalLimit, kEntryLimit);
    for (const std::uint64_t first : {0, 100, 500, 2000}) {
      for (const std::size_t length : {std::size_t{1}, kSize - 100, kSize}) {
        const bool byTag = isServed(cache, first, length, {kTag, ""});
        const bool byDate = isServed(cache, first, length, {"", kDate});
        require(!isForeign || (!byTag && !byDate), "a foreign file serves nothing");
        const KovoRange range(static_cast<std::int64_t>(first), static_cast<std::int64_t>(length));
        const std::uint64_t cached = cache.getCachedLength(kUrl, {kTag, kDate}, range);
        require(cached == 0 || cached == length, "a range is there or not");
      }
    }
    store(cache, 9000);
    cache.trimToSize();
    require(isServed(cache, 9000, kSize, {kTag, ""}) || !isForeign,
            "the cache that replaced a foreign file works");
  }
  {
    SqliteBackedCache cache(place.database, kTotalLimit, kEntryLimit);
    isServed(cache, 9000, kSize, {kTag, ""});
    cache.clear();
    require(!isServed(cache, 9000, kSize, {kTag, ""}), "nothing outlives a clearing");
    store(cache, 12'000);
    isServed(cache, 12'000, kSize, {kTag, ""});
  }
}

}  // namespace kovo::test
