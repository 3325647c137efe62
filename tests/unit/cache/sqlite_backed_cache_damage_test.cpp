#include <sqlite3.h>

#include <filesystem>

#include "cache/sqlite_backed_cache.h"
#include "unit/cache/range_cache_fixture.h"

namespace kovo::test {
namespace {

class RangeCacheDamage : public RangeCache {
 protected:
  void expectUsable() {
    open();
    store(0, 1000);
    EXPECT_EQ(get(0, 1000), HttpGetCache::Hit);
  }
  // Whatever the file holds by now, no wrong byte is served and the next run works.
  void expectNothingWrong(std::uint64_t entries, std::size_t size) {
    open();
    for (std::uint64_t entry = 0; entry < entries; ++entry) {
      get(static_cast<std::int64_t>(entry * size), static_cast<std::int64_t>(size));
    }
    open();
    store(entries * size, size);
    EXPECT_EQ(get(static_cast<std::int64_t>(entries * size), static_cast<std::int64_t>(size)),
              HttpGetCache::Hit);
  }
};

TEST_F(RangeCacheDamage, AFileThatIsNoDatabaseIsReplaced) {
  for (const std::string& content :
       {std::string(), std::string(100000, 'x'), readFile(database).substr(0, 50000)}) {
    cache.reset();
    for (const char* suffix : {"-wal", "-shm"}) {
      std::filesystem::remove(database + suffix);
    }
    writeFile(database, content);
    expectUsable();
  }
  cache.reset();
  std::filesystem::remove(database);
  std::filesystem::create_directory(database);
  LogCapture log(KOVO_LOG_TRACE);
  open();
  store(0, 1000);
  EXPECT_EQ(get(0, 1000), HttpGetCache::NoDatabase);
  EXPECT_EQ(count(log, "GET cache not used"), 1u);
  std::filesystem::remove(database);
  std::filesystem::create_symlink(directory.file("elsewhere"), database);
  open();
  EXPECT_EQ(get(0, 1000), HttpGetCache::NoDatabase);
  EXPECT_FALSE(std::filesystem::exists(directory.file("elsewhere")));
}

TEST_F(RangeCacheDamage, BytesDamagedInTheFileAreNeverServed) {
  constexpr std::size_t kSize = 100000;
  constexpr std::uint64_t kEntries = 5;
  cache.reset();
  std::uint64_t fileSize = 1;
  for (std::uint64_t offset = 0; offset < fileSize; offset += 24571) {
    std::filesystem::remove(database);
    open();
    for (std::uint64_t entry = 0; entry < kEntries; ++entry) {
      store(entry * kSize, kSize);
    }
    cache.reset();
    fileSize = std::filesystem::file_size(database);
    if (offset % 2 == 0) {
      overwrite(database, offset, "!");
    } else {
      std::filesystem::resize_file(database, offset);
    }
    expectNothingWrong(kEntries, kSize);
    cache.reset();
  }
}

TEST_F(RangeCacheDamage, ADamagedEntryEndsTheUseOfTheFileWithOneLine) {
  store(0, 1000);
  store(5000, 1000);
  sql(database, "UPDATE CacheEntries SET data = zeroblob(1000) WHERE firstByte = 0");
  LogCapture log(KOVO_LOG_TRACE);
  EXPECT_EQ(get(0, 1000), HttpGetCache::Miss);
  EXPECT_EQ(get(5000, 1000), HttpGetCache::NoDatabase);
  store(0, 1000);
  EXPECT_EQ(count(log, "GET cache not used any more"), 1u);
  expectUsable();
}

TEST_F(RangeCacheDamage, AFullDiskDisablesTheCacheWithOneLine) {
  cache.reset();
  EXPECT_EQ(waitFor(spawn([&] {
              open();
              store(0, 1000);
              limitFileSize(std::filesystem::file_size(database + "-wal") + 40000);
              LogCapture log(KOVO_LOG_TRACE);
              const Bytes bytes = bytesAt(0, 3 * kMebibyte);
              for (int body = 0; body < 5; ++body) {
                cache->storeBody("large", headers(0, bytes.size(), "\"e\""), bodyOf(bytes));
                if (!cache->waitUntilStored(std::chrono::seconds(20))) {
                  return 1;
                }
              }
              if (count(log, "GET cache not used any more: database or disk is full") +
                      count(log, "GET cache not used any more: disk I/O error") !=
                  1) {
                return 2;
              }
              return get(0, 1000) == HttpGetCache::NoDatabase ? 0 : 3;
            })),
            0);
  open();
  EXPECT_EQ(get(0, 1000), HttpGetCache::Hit);
}

TEST_F(RangeCacheDamage, ARemovedFileDisablesTheCache) {
  store(0, 1000);
  std::filesystem::remove(database);
  store(5000, 1000);
  EXPECT_EQ(get(0, 1000), HttpGetCache::NoDatabase);
  expectUsable();
}

TEST_F(RangeCacheDamage, AProcessThatHoldsTheLockDelaysNeitherLookUpsNorTheEnd) {
  store(0, 1000);
  sqlite3* holder = nullptr;
  ASSERT_EQ(::sqlite3_open(database.c_str(), &holder), SQLITE_OK);
  ASSERT_EQ(::sqlite3_exec(holder, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr), SQLITE_OK);
  for (std::uint64_t body = 1; body < 10; ++body) {
    const Bytes bytes = bytesAt(body * kMebibyte, kMebibyte);
    cache->storeBody("url", headers(body * kMebibyte, kMebibyte, "\"e\""), bodyOf(bytes));
  }
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_EQ(get(0, 1000), HttpGetCache::Hit);
  cache.reset();
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(10));
  ::sqlite3_close(holder);
}

TEST_F(RangeCacheDamage, ProcessesThatOpenAtOnceShareTheirEntries) {
  cache.reset();
  for (const bool isGarbage : {false, true}) {
    std::filesystem::remove(database);
    if (isGarbage) {
      writeFile(database, std::string(100000, 'x'));
    }
    std::vector<pid_t> children;
    for (std::uint64_t process = 0; process < 4; ++process) {
      children.push_back(spawn([&, process] {
        open();
        for (std::uint64_t entry = process * 10; entry < process * 10 + 10; ++entry) {
          // On a busy disk the others may hold the lock for longer than a store waits: it is lost
          // then, and the use of a file that was just being replaced ends.
          bool hit = false;
          for (int attempt = 0; attempt < 20 && !hit; ++attempt) {
            if (attempt > 0) {
              cache.reset();
              open();
            }
            store(entry * 1000, 1000);
            hit = get(static_cast<std::int64_t>(entry) * 1000, 1000) == HttpGetCache::Hit;
          }
          if (!hit) {
            return 1;
          }
        }
        return 0;
      }));
    }
    for (const pid_t child : children) {
      EXPECT_EQ(waitFor(child), 0);
    }
    open();
    EXPECT_EQ(rows(), "40");
    for (std::int64_t entry = 0; entry < 40; ++entry) {
      EXPECT_EQ(get(entry * 1000, 1000), HttpGetCache::Hit);
    }
    cache.reset();
  }
}

}  // namespace
}  // namespace kovo::test
