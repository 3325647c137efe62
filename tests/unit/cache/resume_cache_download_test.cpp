#include <gtest/gtest.h>
#include <sys/stat.h>
#include <utime.h>

#include <thread>

#include "cache/sqlite_resume_cache.h"
#include "support/manual_clock.h"
#include "support/temp_dir.h"
#include "unit/cache/cache_fixture.h"

namespace kovo::test {
namespace {

using FirstBytes = std::set<std::uint64_t>;

class ResumeCacheDownload : public ::testing::Test {
 protected:
  ResumeCacheDownload() { writeFile(file, "some bytes"); }
  void open(const std::string& bootId = "boot") {
    cache = std::make_unique<SqliteResumeCache>(directory.path().c_str(), clock, bootId);
  }
  FirstBytes firstBytes(const std::string& etag = "tag") {
    FirstBytes result;
    EXPECT_TRUE(cache->getFirstBytesDownlaodedChunks(file, etag, result));
    return result;
  }
  bool hasGeometry() {
    std::uint64_t start = 0, size = 0, total = 0;
    return cache->findDownloadGeometry(file, "url", start, size, total);
  }
  std::string rowCount() { return sql(database, "SELECT COUNT(*) FROM DownloadChunkStatus"); }

  TempDir directory;
  std::string database = directory.file("sqliteResumeTransfer.db");
  std::string file = directory.file("partial._kstmp");
  ManualClock clock{std::time(nullptr) * 1000};
  std::unique_ptr<SqliteResumeCache> cache;
};

TEST_F(ResumeCacheDownload, RowsOutliveTheInstanceAndAnotherEntityTagDropsThem) {
  open();
  EXPECT_FALSE(cache->isFilePartiallyDownloaded(file));
  cache->storeDownloadedChunkDetails(file, "tag", 4096);
  cache->storeDownloadedChunkDetails(file, "tag", 0);
  cache->storeDownloadedChunkDetails(file, "tag", 1ull << 40);
  open();
  EXPECT_TRUE(cache->isFilePartiallyDownloaded(file));
  EXPECT_EQ(firstBytes(), (FirstBytes{0, 4096, 1ull << 40}));
  EXPECT_EQ(firstBytes("other"), FirstBytes{});
  EXPECT_EQ(rowCount(), "0");

  FirstBytes none;
  EXPECT_FALSE(cache->getFirstBytesDownlaodedChunks(file, "", none));
}

TEST_F(ResumeCacheDownload, RowsOfAMissingOrEmptyFileAreDropped) {
  open();
  for (const bool isMissing : {true, false}) {
    for (const bool isAsked : {true, false}) {
      cache->storeDownloadedChunkDetails(file, "tag", 0);
      if (isMissing) {
        std::remove(file.c_str());
      } else {
        writeFile(file, "");
      }
      if (isAsked) {
        EXPECT_FALSE(cache->isFilePartiallyDownloaded(file));
      } else {
        EXPECT_EQ(firstBytes(), FirstBytes{});
      }
      EXPECT_EQ(rowCount(), "0");
    }
  }
}

TEST_F(ResumeCacheDownload, RowsOfFilesNotWrittenForFiveDaysAreDropped) {
  open();
  const std::string fresh = directory.file("fresh._kstmp");
  writeFile(fresh, "x");
  for (const auto& [path, age] : {std::pair(file, 432000), std::pair(fresh, 431999)}) {
    const std::int64_t written = clock.nowMilliseconds() / 1000 - age;
    const utimbuf times{written, written};
    ::utime(path.c_str(), &times);
    cache->setDownloadGeometry(path, "url", 0, 1, 1);
    cache->storeDownloadedChunkDetails(path, "tag", 0);
  }
  cache->storeDownloadedChunkDetails(directory.file("gone"), "tag", 0);
  cache->clearOutdatedCache();
  EXPECT_EQ(rowCount(), "1");
  EXPECT_TRUE(cache->isFilePartiallyDownloaded(fresh));
  EXPECT_FALSE(hasGeometry());
}

TEST_F(ResumeCacheDownload, AnotherGeometryDropsTheRows) {
  open();
  cache->setDownloadGeometry(file, "url", 0, 2048, 0);
  cache->storeDownloadedChunkDetails(file, "tag", 2048);
  cache->setDownloadGeometry(file, "url", 0, 2048, 9000);  // the length became known
  EXPECT_EQ(firstBytes(), (FirstBytes{2048}));
  std::uint64_t start = 1, size = 0, total = 0;
  EXPECT_TRUE(cache->findDownloadGeometry(file, "url", start, size, total));
  EXPECT_EQ((FirstBytes{start, size, total}), (FirstBytes{0, 2048, 9000}));
  EXPECT_FALSE(cache->findDownloadGeometry(file, "url2", start, size, total));

  cache->setDownloadGeometry(file, "url", 0, 4096, 9000);
  EXPECT_EQ(firstBytes(), FirstBytes{});
  EXPECT_TRUE(hasGeometry());
  cache->deleteFromCacheDownload(file);
  EXPECT_FALSE(hasGeometry());
}

TEST_F(ResumeCacheDownload, RowsHoldAcrossABootOnlyWhenMarkedSynced) {
  open("boot 1");
  cache->setDownloadGeometry(file, "url", 0, 2048, 9000);
  cache->storeDownloadedChunkDetails(file, "tag", 0);
  open("boot 1");
  EXPECT_EQ(firstBytes(), (FirstBytes{0}));
  cache->beginDownloadSync(file);
  cache->markDownloadSynced(file);
  open("boot 2");
  EXPECT_TRUE(cache->isFilePartiallyDownloaded(file));
  cache->setDownloadGeometry(file, "url", 0, 2048, 9000);
  open("boot 3");
  EXPECT_EQ(firstBytes(), (FirstBytes{0}));

  cache->storeDownloadedChunkDetails(file, "tag", 2048);  // ends the mark
  cache->beginDownloadSync(file);
  cache->storeDownloadedChunkDetails(file, "tag", 4096);
  cache->markDownloadSynced(file);  // not for what came while the file was synced
  open("boot 4");
  cache->beginDownloadSync(file);  // nor for rows of another boot
  cache->markDownloadSynced(file);
  EXPECT_FALSE(cache->isFilePartiallyDownloaded(file));
  EXPECT_EQ(rowCount(), "0");

  cache->setDownloadGeometry(file, "url", 0, 2048, 9000);
  cache->storeDownloadedChunkDetails(file, "tag", 2048);
  open("boot 5");
  cache->setDownloadGeometry(file, "url", 0, 2048, 9000);  // must not adopt them either
  EXPECT_EQ(firstBytes(), FirstBytes{});
}

TEST_F(ResumeCacheDownload, FilesAreReadableByTheirOwnerAlone) {
  const mode_t before = ::umask(0);
  writeFile(database, "");
  ::chmod(database.c_str(), 0666);
  open();
  cache->storeDownloadedChunkDetails(file, "tag", 0);
  for (const char* suffix : {"", "-wal", "-shm"}) {
    struct stat facts;
    ASSERT_EQ(::stat((database + suffix).c_str(), &facts), 0) << suffix;
    EXPECT_EQ(facts.st_mode & 07777, 0600u) << suffix;
  }
  ::umask(before);
}

TEST_F(ResumeCacheDownload, ThreadsOfTwoInstancesShareTheDatabase) {
  open();
  SqliteResumeCache other(directory.path().c_str());
  std::vector<std::thread> threads;
  for (std::uint64_t thread = 0; thread < 4; ++thread) {
    threads.emplace_back([&, thread] {
      SqliteResumeCache& mine = thread % 2 == 0 ? *cache : other;
      for (std::uint64_t row = 0; row < 50; ++row) {
        mine.storeDownloadedChunkDetails(file, "tag", row * 4 + thread);
        mine.deleteFromCacheDownload("/nothing" + std::to_string(row));
        mine.isFilePartiallyDownloaded(file);
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(firstBytes().size(), 200u);
}

}  // namespace
}  // namespace kovo::test
