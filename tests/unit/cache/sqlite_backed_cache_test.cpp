#include "cache/sqlite_backed_cache.h"

#include <sys/stat.h>

#include <thread>

#include "unit/cache/range_cache_fixture.h"

namespace kovo::test {
namespace {

constexpr std::chrono::milliseconds kLong{20000};

TEST_F(RangeCache, ServesWhatOneEntrySpans) {
  store(1000, 1000);
  EXPECT_EQ(get(1200, 100), HttpGetCache::Hit);
  EXPECT_EQ(get(1000, 1000), HttpGetCache::Hit);
  EXPECT_EQ(get(1900, 200), HttpGetCache::Miss);
  EXPECT_EQ(get(999, 2), HttpGetCache::Miss);
  EXPECT_EQ(get(1200, 100, {"\"e\"", ""}, "other"), HttpGetCache::Miss);
  EXPECT_EQ(cache->getCachedLength("url", {"\"e\"", ""}, KovoRange(1999, 1)), 1u);
  EXPECT_EQ(cache->getCachedLength("url", {"\"e\"", ""}, KovoRange(2000, 1)), 0u);
  open();
  EXPECT_EQ(get(1200, 100), HttpGetCache::Hit);

  std::uint8_t byte = 0;
  for (const KovoRange& range :
       {KovoRange(1000, 0), KovoRange(-1, 1), KovoRange(INT64_MAX, 1), KovoRange(1000, -5)}) {
    EXPECT_EQ(cache->getData("url", {"\"e\"", ""}, range, &byte, 1), HttpGetCache::Miss);
  }
  EXPECT_EQ(cache->getData("url", {"\"e\"", ""}, KovoRange(1000, 2), &byte, 1),
            HttpGetCache::BufferTooSmall);
}

TEST_F(RangeCache, KeepsABodyOfManyBlocksAtItsPlace) {
  const std::size_t size = 5 * kMebibyte + 123;
  const Bytes bytes = bytesAt(7 * kMebibyte, size);
  cache->storeBody("url", headers(7 * kMebibyte, size, "\"e\""), bodyOf(bytes));
  ASSERT_TRUE(cache->waitUntilStored(kLong));
  EXPECT_EQ(get(7 * kMebibyte, static_cast<std::int64_t>(size)), HttpGetCache::Hit);
  EXPECT_EQ(get(8 * kMebibyte - 10, 20), HttpGetCache::Hit);
  EXPECT_EQ(get(12 * kMebibyte, 123), HttpGetCache::Hit);
  EXPECT_EQ(get(0, 100), HttpGetCache::Miss);

  cache->storeBody("url", headers(0, 100, "\"e\""), bodyOf(bytesAt(0, 99)));  // cut short
  ASSERT_TRUE(cache->waitUntilStored(kLong));
  EXPECT_EQ(get(0, 99), HttpGetCache::Miss);
}

TEST_F(RangeCache, MatchesByStrongNonEmptyValidatorsOnly) {
  store(0, 100, "\"e\"", "Wed", "both");
  store(0, 100, "", "Wed", "dated");
  store(0, 100, "\"e\"", "", "tagged");
  const struct {
    const char* url;
    CacheValidators validators;
    HttpGetCache::Status status;
  } cases[] = {
      {"both", {"\"e\"", "Thu"}, HttpGetCache::Hit},
      {"both", {"", "Wed"}, HttpGetCache::Hit},
      {"both", {"W/\"e\"", "Wed"}, HttpGetCache::Hit},
      {"both", {"\"f\"", "Wed"}, HttpGetCache::Hit},
      // One second is long enough for two versions; the tags say that these are two.
      {"both", decisiveValidators("\"f\"", "Wed"), HttpGetCache::Miss},
      {"both", decisiveValidators("W/\"f\"", "Wed"), HttpGetCache::Hit},
      {"both", {"", ""}, HttpGetCache::Miss},
      {"dated", {"\"f\"", "Wed"}, HttpGetCache::Hit},
      {"dated", {"\"f\"", ""}, HttpGetCache::Miss},
      {"tagged", {"", "Wed"}, HttpGetCache::Miss},
      {"tagged", {"\"f\"", ""}, HttpGetCache::Miss},
      {"tagged", {"W/\"e\"", ""}, HttpGetCache::Miss},
  };
  for (const auto& one : cases) {
    EXPECT_EQ(get(0, 100, one.validators, one.url), one.status)
        << one.url << " " << one.validators.etag << " " << one.validators.lastModifiedDate;
  }
}

TEST_F(RangeCache, FindsTheEntryAmongManyOfItsResource) {
  for (std::uint64_t chunk = 0; chunk < 100; ++chunk) {
    store(chunk * 100, 100);
  }
  store(0, 10, "\"other\"", "Wed");
  store(20000, 100, "", "Wed");
  EXPECT_EQ(get(4200, 100), HttpGetCache::Hit);
  EXPECT_EQ(get(4250, 100), HttpGetCache::Miss);
  EXPECT_EQ(get(20000, 100, {"\"e\"", "Wed"}), HttpGetCache::Hit);
  EXPECT_EQ(get(4200, 100, decisiveValidators("\"third\"", "Wed")), HttpGetCache::Miss);
}

TEST_F(RangeCache, DoesNotKeepTheSameRangeTwice) {
  store(0, 1000);
  store(0, 1000);
  store(100, 10);
  EXPECT_EQ(rows(), "1");
  store(100, 1000);
  store(0, 1000, "\"f\"");
  EXPECT_EQ(rows(), "3");
}

TEST_F(RangeCache, EvictsTheOldestTwoPerStoreBeyondTheLimit) {
  open(10000, 2000);
  for (std::uint64_t chunk = 0; chunk < 10; ++chunk) {
    store(chunk * 1000, 1000);
  }
  sql(database, "UPDATE CacheEntries SET lastUsed = firstByte + 1");
  cache->markUsed(1);
  store(10000, 1000);
  EXPECT_EQ(rows(), "9");
  EXPECT_EQ(get(0, 1000), HttpGetCache::Hit);
  EXPECT_EQ(get(1000, 1000), HttpGetCache::Miss);
  EXPECT_EQ(get(2000, 1000), HttpGetCache::Miss);
  EXPECT_EQ(get(10000, 1000), HttpGetCache::Hit);

  // Entries of another instance count; small ones do not shelter a growing total.
  SqliteBackedCache other(database, 10000, 2000);
  for (std::uint64_t chunk = 0; chunk < 40; ++chunk) {
    const Bytes bytes = bytesAt(chunk, 100);
    other.storeData("small", headers(chunk * 100, 100, "\"e\""), bytes.data(), 100);
  }
  for (std::uint64_t chunk = 100; chunk < 150; ++chunk) {
    store(chunk * 2000, 2000);
  }
  EXPECT_LE(std::stoi(sql(database, "SELECT SUM(length(data)) FROM CacheEntries")), 11250);
  EXPECT_EQ(get(149 * 2000, 2000), HttpGetCache::Hit);
}

TEST_F(RangeCache, WithoutRoomForAnEntryThereIsNoDatabase) {
  open(1000, 1000);
  store(0, 100);
  EXPECT_EQ(get(0, 100), HttpGetCache::NoDatabase);
  EXPECT_FALSE(cache->isCacheable(headers(0, 100, "\"e\"")));
  cache->clear();
}

TEST_F(RangeCache, ClearEmptiesTableAndQueue) {
  store(0, 1000);
  const Bytes bytes = bytesAt(0, 4 * kMebibyte);
  for (std::uint64_t chunk = 0; chunk < 8; ++chunk) {
    cache->storeBody("queued", headers(0, bytes.size(), "\"" + std::to_string(chunk) + "\""),
                     bodyOf(bytes));
  }
  cache->clear();
  ASSERT_TRUE(cache->waitUntilStored(kLong));
  EXPECT_EQ(rows(), "0");
  EXPECT_EQ(get(0, 1000), HttpGetCache::Miss);
  store(0, 1000);
  EXPECT_EQ(get(0, 1000), HttpGetCache::Hit);
}

TEST_F(RangeCache, FilesAreReadableByTheirOwnerAlone) {
  store(0, 100);
  for (const char* suffix : {"", "-wal", "-shm"}) {
    struct stat facts;
    ASSERT_EQ(::stat((database + suffix).c_str(), &facts), 0) << suffix;
    EXPECT_EQ(facts.st_mode & 07777, 0600u) << suffix;
  }
}

TEST_F(RangeCache, TwoInstancesAndTheirThreadsShareTheFile) {
  open(8 * kMebibyte, kMebibyte);
  SqliteBackedCache other(database, 8 * kMebibyte, kMebibyte);
  std::vector<std::thread> threads;
  for (std::uint64_t thread = 0; thread < 4; ++thread) {
    threads.emplace_back([&, thread] {
      SqliteBackedCache& mine = thread % 2 == 0 ? *cache : other;
      Bytes buffer(50000);
      for (std::uint64_t round = 0; round < 60; ++round) {
        const std::uint64_t first = (round * 4 + thread) * 50000;
        mine.storeBody("url", headers(first, 50000, "\"e\""), bodyOf(bytesAt(first, 50000)));
        const std::uint64_t wanted = first / 2 / 50000 * 50000;
        if (mine.getData("url", {"\"e\"", ""}, KovoRange(static_cast<std::int64_t>(wanted), 50000),
                         buffer.data(), buffer.size()) == HttpGetCache::Hit) {
          EXPECT_EQ(buffer, bytesAt(wanted, 50000));
        }
        if (round == 30 && thread == 0) {
          mine.clear();
        }
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  ASSERT_TRUE(cache->waitUntilStored(kLong));
  store(0, 1000, "\"last\"");
  EXPECT_EQ(get(0, 1000, {"\"last\"", ""}), HttpGetCache::Hit);
  std::uint8_t byte = 0;
  EXPECT_EQ(other.getData("url", {"\"last\"", ""}, KovoRange(0, 1), &byte, 1), HttpGetCache::Hit);
}

}  // namespace
}  // namespace kovo::test
