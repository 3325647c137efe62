#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <filesystem>

#include "cache/sqlite_resume_cache.h"
#include "support/temp_dir.h"
#include "unit/cache/cache_fixture.h"

namespace kovo::test {
namespace {

class ResumeCacheDamage : public ::testing::Test {
 protected:
  ResumeCacheDamage() { writeFile(file, "some bytes"); }
  std::set<std::uint64_t> firstBytes(SqliteResumeCache& cache) {
    std::set<std::uint64_t> result;
    cache.getFirstBytesDownlaodedChunks(file, "tag", result);
    return result;
  }
  // A database with rows in several pages, closed.
  void fill() {
    SqliteResumeCache cache(base());
    for (std::uint64_t row = 0; row < 300; ++row) {
      cache.storeDownloadedChunkDetails(file, "tag", row);
    }
  }
  const char* base() { return directory.path().c_str(); }
  // Whatever the file was: the cache works, and claims no more than was stored.
  void expectUsable(std::size_t mostRows) {
    SqliteResumeCache cache(base());
    ASSERT_TRUE(cache.isOpened());
    EXPECT_LE(firstBytes(cache).size(), mostRows);
    cache.storeDownloadedChunkDetails(file, "tag", 1000);
    EXPECT_EQ(firstBytes(cache).count(1000), 1u);
  }

  TempDir directory;
  std::string database = directory.file("sqliteResumeTransfer.db");
  std::string file = directory.file("partial._kstmp");
};

TEST_F(ResumeCacheDamage, RowsThatTheIndexDoesNotKnowAreDeletedToo) {
  const std::string index = "CREATE INDEX downloadPathIndex ON DownloadChunkStatus(filePath)";
  const auto define = [&](const std::string& text) {
    sql(database, "PRAGMA writable_schema = ON; UPDATE sqlite_master SET sql = '" + text +
                      "' WHERE name = 'downloadPathIndex'");
  };
  fill();
  define(index + " WHERE 0");
  sql(database, "INSERT INTO DownloadChunkStatus(filePath, eTag, firstByte) VALUES ('" + file +
                    "', 'tag', 900)");
  define(index);
  SqliteResumeCache(base()).deleteFromCacheDownload(file);
  SqliteResumeCache cache(base());
  EXPECT_EQ(firstBytes(cache).size(), 0u);
  EXPECT_EQ(sql(database, "SELECT COUNT(*) FROM DownloadChunkStatus NOT INDEXED"), "0");
}

TEST_F(ResumeCacheDamage, ADatabaseOfThisVersionIsKeptAndAnyOtherIsEmptied) {
  fill();
  {
    SqliteResumeCache same(base());
    EXPECT_EQ(firstBytes(same).size(), 300u);
  }
  for (const char* change : {"UPDATE VersionTable SET version = '2.1'", "DELETE FROM VersionTable",
                             "DROP TABLE VersionTable",
                             "CREATE VIEW \"a\"\"b\" AS SELECT 1; DELETE FROM VersionTable"}) {
    fill();
    sql(database, change);
    SqliteResumeCache other(base());
    EXPECT_TRUE(other.isOpened()) << change;
    EXPECT_EQ(firstBytes(other).size(), 0u) << change;
    EXPECT_EQ(sql(database, "SELECT version FROM VersionTable"), "2.0") << change;
  }
}

TEST_F(ResumeCacheDamage, ADamagedFileIsReplaced) {
  const std::string garbage(20000, 'x');
  writeFile(database, garbage);
  expectUsable(0);
  writeFile(database, "");
  expectUsable(0);
  fill();
  const std::uint64_t size = std::filesystem::file_size(database);
  std::filesystem::resize_file(database, size / 2);
  expectUsable(0);
  for (std::uint64_t offset = 0; offset < size; offset += 1536) {
    std::filesystem::remove(database);
    fill();
    overwrite(database, offset, garbage.substr(0, 700));
    expectUsable(300);
  }
}

TEST_F(ResumeCacheDamage, AFileThatCannotBeADatabaseLeavesTheCacheClosed) {
  std::filesystem::create_directory(database);
  EXPECT_FALSE(SqliteResumeCache(base()).isOpened());
  std::filesystem::remove(database);
  std::filesystem::create_symlink(directory.file("elsewhere"), database);
  EXPECT_FALSE(SqliteResumeCache(base()).isOpened());
  EXPECT_FALSE(SqliteResumeCache("/nonexistent").isOpened());
}

TEST_F(ResumeCacheDamage, ARemovedFileEndsTheRecording) {
  SqliteResumeCache cache(base());
  cache.storeDownloadedChunkDetails(file, "tag", 0);
  LogCapture log(KOVO_LOG_TRACE);
  for (const char* suffix : {"", "-wal", "-shm"}) {
    std::filesystem::remove(database + suffix);
  }
  cache.storeDownloadedChunkDetails(file, "tag", 1);
  EXPECT_FALSE(cache.isOpened());
  EXPECT_EQ(count(log, "nothing is recorded from now on"), 1u);
  expectUsable(0);
}

TEST_F(ResumeCacheDamage, RowsAreInTheDatabaseWhenTheProcessIsKilled) {
  int reports[2];
  ASSERT_EQ(::pipe(reports), 0);
  const pid_t child = spawn([&] {
    SqliteResumeCache cache(base());
    cache.setDownloadGeometry(file, "url", 0, 1, 0);
    for (std::uint64_t row = 0;; ++row) {
      cache.storeDownloadedChunkDetails(file, "tag", row);
      if (::write(reports[1], &row, sizeof row) != sizeof row) {
        return 1;
      }
    }
  });
  ::close(reports[1]);
  std::uint64_t row = 0;
  while (row < 100 && ::read(reports[0], &row, sizeof row) == sizeof row) {
  }
  ::kill(child, SIGKILL);
  EXPECT_EQ(waitFor(child), 128 + SIGKILL);
  std::uint64_t last = row;
  while (::read(reports[0], &row, sizeof row) == sizeof row) {
    last = row;
  }
  ::close(reports[0]);
  SqliteResumeCache cache(base());
  EXPECT_GE(firstBytes(cache).size(), last + 1);
  EXPECT_LE(firstBytes(cache).size(), last + 2);
}

TEST_F(ResumeCacheDamage, ProcessesThatOpenAtOnceKeepEachOthersRows) {
  for (const bool isGarbage : {false, true}) {
    std::filesystem::remove(database);
    if (isGarbage) {
      writeFile(database, std::string(5000, 'x'));
    }
    std::vector<pid_t> children;
    for (std::uint64_t process = 0; process < 4; ++process) {
      children.push_back(spawn([&, process] {
        SqliteResumeCache cache(base());
        for (std::uint64_t row = 0; row < 50; ++row) {
          cache.storeDownloadedChunkDetails(file, "tag", row * 4 + process);
        }
        return cache.isOpened() ? 0 : 1;
      }));
    }
    for (const pid_t child : children) {
      EXPECT_EQ(waitFor(child), 0);
    }
    SqliteResumeCache cache(base());
    EXPECT_EQ(firstBytes(cache).size(), 200u);
  }
}

// On a full disk rows cannot be deleted, and the caller empties the file all the same: they must
// be gone when the next process looks.
TEST_F(ResumeCacheDamage, AFullDiskLosesRowsButLeavesNoFalseOnes) {
  EXPECT_EQ(waitFor(spawn([&] {
              SqliteResumeCache cache(base());
              cache.storeDownloadedChunkDetails(file, "tag", 0);
              limitFileSize(std::filesystem::file_size(database + "-wal"));
              LogCapture log(KOVO_LOG_TRACE);
              cache.storeDownloadedChunkDetails(file, "tag", 1);
              if (count(log, "SQL error in storeData downloadChunkStatus for file") != 1 ||
                  firstBytes(cache) != std::set<std::uint64_t>{0}) {
                return 1;
              }
              cache.deleteFromCacheDownload(file);
              return cache.isOpened() ? 2 : 0;
            })),
            0);
  SqliteResumeCache next(base());
  EXPECT_TRUE(next.isOpened());
  EXPECT_EQ(firstBytes(next).size(), 0u);
}

}  // namespace
}  // namespace kovo::test
