#include <gtest/gtest.h>

#include "cache/sqlite_resume_cache.h"
#include "support/manual_clock.h"
#include "support/temp_dir.h"
#include "unit/cache/cache_fixture.h"

namespace kovo::test {
namespace {

constexpr std::int64_t kFiveDays = 5 * 86400;

class ResumeCacheUpload : public ::testing::Test {
 protected:
  std::string response() {
    std::string text;
    cache.getResponse("/file", text);
    return text;
  }
  std::set<std::int32_t> parts() {
    std::set<std::int32_t> numbers;
    cache.getChunksUploaded("/file", numbers);
    return numbers;
  }

  TempDir directory;
  std::string database = directory.file("sqliteResumeTransfer.db");
  ManualClock clock{std::time(nullptr) * 1000};
  SqliteResumeCache cache{directory.path().c_str(), clock, "boot"};
};

TEST_F(ResumeCacheUpload, AnswersTheLatestRowOfAPathAndAllItsParts) {
  cache.insertResponse("/file", "first", "");
  cache.insertResponse("/file", "second", "md5");
  cache.insertUploadedChunkEtag("/file", 2, "two");
  cache.insertUploadedChunkEtag("/file", 1, "one");
  cache.insertUploadedChunkEtag("/other", 7, "seven");

  EXPECT_EQ(response(), "second");
  std::string md5;
  cache.getMd5Sum("/file", md5);
  EXPECT_EQ(md5, "md5");
  std::int64_t uploaded = 0;
  cache.getUploadedDate("/file", uploaded);
  EXPECT_EQ(uploaded, clock.nowMilliseconds() / 1000);
  std::vector<std::pair<std::int32_t, std::string>> etags;
  cache.getUploadedChunksEtags("/file", etags);
  EXPECT_EQ(etags, (decltype(etags){{2, "two"}, {1, "one"}}));
  EXPECT_EQ(parts(), (std::set<std::int32_t>{1, 2}));

  cache.deleteFromCacheUpload("/file");
  EXPECT_EQ(response(), "");
  EXPECT_TRUE(parts().empty());
  EXPECT_EQ(sql(database, "SELECT COUNT(*) FROM UploadChunkStatus"), "1");
}

TEST_F(ResumeCacheUpload, RefusesWhatItCannotUse) {
  LogCapture log(KOVO_LOG_TRACE);
  cache.insertResponse("/file", "", "md5");
  EXPECT_EQ(count(log,
                  "Constraints not passed: filepath /file, size of response 0, md5Sum md5, "
                  "isdatabasenotopened 0"),
            1u);
  cache.insertUploadedChunkEtag("/file", 1, "");
  SqliteResumeCache closed(nullptr);
  EXPECT_FALSE(closed.isOpened());
  closed.insertResponse("/file", "text", "");
  EXPECT_EQ(count(log, "isdatabasenotopened 1"), 1u);
  EXPECT_EQ(response(), "");
  EXPECT_TRUE(parts().empty());
}

TEST_F(ResumeCacheUpload, ForgetsAResponseAfterFiveDaysWithItsParts) {
  cache.insertResponse("/file", "answer", "md5");
  cache.insertUploadedChunkEtag("/file", 1, "one");
  clock.advance((kFiveDays - 1) * 1000);
  EXPECT_EQ(response(), "answer");
  clock.advance(1000);
  EXPECT_EQ(response(), "");
  EXPECT_TRUE(parts().empty());
}

TEST_F(ResumeCacheUpload, ClearsOutdatedRowsAtMostOnceInFiveDays) {
  cache.insertResponse("/file", "answer", "md5");
  cache.insertResponse("/broken", "answer", "md5");
  sql(database,
      "UPDATE ResponseTable SET timeUploaded = -9223372036854775807 - 1 WHERE filePath = "
      "'/broken'");
  clock.advance((kFiveDays - 1) * 1000);
  cache.clearOutdatedCacheTimer();
  EXPECT_EQ(sql(database, "SELECT COUNT(*) FROM ResponseTable"), "2");
  clock.advance(1000);
  cache.clearOutdatedCacheTimer();
  EXPECT_EQ(sql(database, "SELECT COUNT(*) FROM ResponseTable"), "0");

  sql(database, "INSERT INTO ResponseTable VALUES (NULL, '/file', 'a', 'b', 0)");
  cache.clearOutdatedCacheTimer();
  EXPECT_EQ(sql(database, "SELECT COUNT(*) FROM ResponseTable"), "1");
  SqliteResumeCache next(directory.path().c_str(), clock, "boot");
  EXPECT_EQ(sql(database, "SELECT COUNT(*) FROM ResponseTable"), "0");
}

TEST_F(ResumeCacheUpload, LeavesOutPartNumbersThatAreNone) {
  LogCapture log(KOVO_LOG_TRACE);
  sql(database,
      "INSERT INTO UploadChunkStatus VALUES (NULL, '/file', 'abc', 'a'), (NULL, '/file', "
      "'99999999999', 'b'), (NULL, '/file', '-2147483649', 'c'), (NULL, '/file', ' 12x', 'd'), "
      "(NULL, '/file', '', x'')");
  EXPECT_EQ(parts(), (std::set<std::int32_t>{12}));
  std::vector<std::pair<std::int32_t, std::string>> etags;
  cache.getUploadedChunksEtags("/file", etags);
  EXPECT_EQ(etags, (decltype(etags){{12, "d"}}));
  EXPECT_EQ(count(log, "invalid stoi argument"), 4u);
  EXPECT_EQ(count(log, "stoi argument out of range"), 4u);
}

TEST_F(ResumeCacheUpload, KeepsTheUploadsOfOnePathApart) {
  EXPECT_FALSE(cache.isUploadTarget("/file", "https://a/?secret=SIGNATURE"));
  cache.setUploadTarget("/file", "https://a/?secret=SIGNATURE");
  cache.insertResponse("/file", "of a", "", "https://a/?secret=SIGNATURE");
  cache.setUploadTarget("/file", "https://a/?secret=SIGNATURE");
  EXPECT_EQ(response(), "of a");

  cache.setUploadTarget("/file", "https://b/");
  EXPECT_EQ(response(), "");
  EXPECT_FALSE(cache.isUploadTarget("/file", "https://a/?secret=SIGNATURE"));
  EXPECT_TRUE(cache.isUploadTarget("/file", "https://b/"));
  cache.insertUploadedChunkEtag("/file", 1, "of a", "https://a/?secret=SIGNATURE");
  cache.insertUploadedChunkEtag("/file", 2, "of b", "https://b/");
  EXPECT_EQ(parts(), (std::set<std::int32_t>{2}));

  for (const char* suffix : {"", "-wal"}) {
    EXPECT_EQ(readFile(database + suffix).find("SIGNATURE"), std::string::npos);
  }
  cache.deleteFromCacheUpload("/file");
  EXPECT_FALSE(cache.isUploadTarget("/file", "https://b/"));
}

}  // namespace
}  // namespace kovo::test
