#include "platform/kovo_utils.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <limits>

#include "support/log_capture.h"
#include "support/temp_dir.h"

namespace kovo {
namespace {

using testing::ElementsAre;
using testing::MatchesRegex;
using testing::StartsWith;

TEST(KovoUtilsTest, UrlEncodeEscapesEveryOtherByte) {
  EXPECT_EQ(WinKOVOUtils::urlEncode("a b/c~"), "a%20b%2Fc~");
  EXPECT_EQ(WinKOVOUtils::urlEncode("\xC3\xA9"), "%C3%A9");
  EXPECT_EQ(WinKOVOUtils::urlEncode("-._~%+AZ09"), "-._~%25%2BAZ09");
  EXPECT_EQ(WinKOVOUtils::urlEncode(std::string("\0\xFF", 2)), "%00%FF");
}

TEST(KovoUtilsTest, DatesAreEnglishAndInUtc) {
  EXPECT_EQ(formatHttpDate(0), "Thu, 01 Jan 1970 00:00:00 GMT");
  EXPECT_EQ(formatHttpDate(1794996307), "Wed, 18 Nov 2026 10:05:07 GMT");
  EXPECT_EQ(formatHttpDate(951782400), "Tue, 29 Feb 2000 00:00:00 GMT");
  const std::int64_t before = std::time(nullptr);
  const std::string now = getCurrentHttpDate();
  EXPECT_TRUE(now == formatHttpDate(before) || now == formatHttpDate(before + 1)) << now;
}

TEST(KovoUtilsTest, DatesWithinTwoSeconds) {
  EXPECT_TRUE(KOVOUtils::datesAreWithinTwoSeconds(100, 101));
  EXPECT_TRUE(KOVOUtils::datesAreWithinTwoSeconds(101, 100));
  EXPECT_FALSE(KOVOUtils::datesAreWithinTwoSeconds(100, 102));
  EXPECT_FALSE(KOVOUtils::datesAreWithinTwoSeconds(102, 100));
  test::LogCapture log;
  EXPECT_FALSE(KOVOUtils::datesAreWithinTwoSeconds(std::numeric_limits<std::int32_t>::max(), 0));
  EXPECT_FALSE(KOVOUtils::datesAreWithinTwoSeconds(2147483648, 0));
  EXPECT_FALSE(KOVOUtils::datesAreWithinTwoSeconds(std::numeric_limits<std::int64_t>::min(),
                                                   std::numeric_limits<std::int64_t>::max()));
  EXPECT_THAT(
      log.messages(),
      ElementsAre("Failed to get time difference between 2147483648 and 0 Reason: bad numeric "
                  "conversion: positive overflow",
                  "Failed to get time difference between -9223372036854775808 and "
                  "9223372036854775807 Reason: bad numeric conversion: negative overflow"));
}

TEST(KovoUtilsTest, FileErrorsMapToCodesAndTexts) {
  const struct {
    FileErrorKind kind;
    kovo_error code;
    const char* text;
  } cases[] = {
      {FileErrorKind::BadHandle, 11, "m: Bad File Handle"},
      {FileErrorKind::DiskFull, 33, "m: Insufficient disk space to write to file"},
      {FileErrorKind::Locked, 34, "m: File was locked"},
      {FileErrorKind::InvalidName, 35, "m: Invalid file name"},
      {FileErrorKind::NotFound, 36, "m: File not found"},
      {FileErrorKind::ParentMissing, 37, "m: Parent folder does not exist"},
      {FileErrorKind::AccessDenied, 11, "m: Access Denied"},
      {FileErrorKind::PathTooLong, 39, "m: Path is too long"},
      {FileErrorKind::InvalidParameter, 11, "m"},
      {static_cast<FileErrorKind>(11), 11, "m"},
  };
  for (const auto& c : cases) {
    std::string message = "m";
    EXPECT_EQ(mapFileError(c.kind, KOVO_ERROR_READ_STREAM_FAILURE, message), c.code);
    EXPECT_EQ(message, c.text);
  }
  std::string message = "m";
  errno = EIO;
  EXPECT_EQ(mapFileError(FileErrorKind::Other, KOVO_ERROR_READ_STREAM_FAILURE, message), 11U);
  EXPECT_EQ(message, "m. Input/output error. last error code = 5 ");
}

TEST(KovoUtilsTest, CreateOutputFileEmptiesOrTellsWhyNot) {
  test::TempDir directory;
  const std::string path = directory.file("out");
  std::ofstream(path) << "former content";
  std::string reason;
  EXPECT_EQ(KOVOUtils::createOutputFile(path, reason), 0U);
  EXPECT_EQ(std::filesystem::file_size(path), 0U);

  const std::string orphan = directory.file("missing/out");
  EXPECT_EQ(KOVOUtils::createOutputFile(orphan, reason), 37U);
  EXPECT_EQ(reason, "Unable to create file: " + orphan + " Reason: : Parent folder does not exist");
  EXPECT_EQ(KOVOUtils::createOutputFile(directory.file(std::string(256, 'n')), reason), 39U);
  EXPECT_EQ(KOVOUtils::createOutputFile(directory.path().string(), reason), 35U);
}

TEST(KovoUtilsTest, DeleteOutputFileNeverFailsButLogs) {
  test::LogCapture log;
  test::TempDir directory;
  const std::string path = directory.file("out");
  std::ofstream(path) << "x";
  KOVOUtils::deleteOutputFile(path);
  EXPECT_FALSE(std::filesystem::exists(path));
  KOVOUtils::deleteOutputFile(path);
  EXPECT_THAT(log.messages(), ElementsAre("Failed to delete output file: " + path + " reason: 5"));
}

TEST(KovoUtilsTest, FileStatTellsSizeAndTimeOrCode18) {
  test::TempDir directory;
  const std::string path = directory.file("in");
  std::ofstream(path) << "12345";
  const timespec times[2] = {{0, UTIME_OMIT}, {1234567890, 999999999}};
  ASSERT_EQ(::utimensat(0, path.c_str(), times, 0), 0);
  std::uint64_t size = 0;
  std::int64_t modified = 0;
  std::shared_ptr<KovoError> error;
  ASSERT_TRUE(getFileStat(path, size, modified, error));
  EXPECT_EQ(size, 5U);
  EXPECT_EQ(modified, 1234567890);
  EXPECT_EQ(error, nullptr);
  for (const std::string& bad : {directory.file("missing"), directory.path().string()}) {
    error = nullptr;
    EXPECT_FALSE(getFileStat(bad, size, modified, error));
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(error->code, KOVO_ERROR_INVALID_INPUT_FILE);
    EXPECT_EQ(error->message, "Could not get mod time for: " + bad);
  }
}

}  // namespace
}  // namespace kovo
