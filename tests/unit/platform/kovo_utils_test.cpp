#include "platform/kovo_utils.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <ctime>
#include <fstream>
#include <limits>

#include "platform/clock.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"

namespace kovo {
namespace {

using testing::ElementsAre;

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

TEST(KovoUtilsTest, FilesThatCannotBeUsedAreToldByCodeAndText) {
  test::TempDir directory;
  const std::string orphan = directory.file("missing/out");
  const std::string folder = directory.path().string();
  std::string reason;
  EXPECT_EQ(KOVOUtils::createOutputFile(orphan, reason), 37U);
  EXPECT_EQ(reason, "Unable to create file: " + orphan + " Reason: : Parent folder does not exist");
  EXPECT_EQ(KOVOUtils::createOutputFile(directory.file(std::string(256, 'n')), reason), 39U);
  EXPECT_EQ(KOVOUtils::createOutputFile(folder, reason), 35U);
  std::uint64_t size = 0;
  std::int64_t modified = 0;
  std::shared_ptr<KovoError> error;
  EXPECT_FALSE(getFileStat(folder, size, modified, error));
  ASSERT_NE(error, nullptr);
  EXPECT_EQ(error->description(), "Invalid Input File. Could not get mod time for: " + folder);
}

TEST(KovoUtilsTest, Base64PadsToGroupsOfFour) {
  EXPECT_EQ(base64Encode(""), "");
  EXPECT_EQ(base64Encode("f"), "Zg==");
  EXPECT_EQ(base64Encode("fo"), "Zm8=");
  EXPECT_EQ(base64Encode("foo"), "Zm9v");
  EXPECT_EQ(base64Encode("foob"), "Zm9vYg==");
  EXPECT_EQ(base64Encode(std::string("\xFF\xFE\x00\xFB", 4)), "//4A+w==");
}

TEST(KovoUtilsTest, HmacSha1OfThePublishedVectors) {
  // RFC 2202, cases 1 to 3, in Base64.
  EXPECT_EQ(base64Encode(hmacSha1(std::string(20, '\x0b'), "Hi There")),
            "thcxhlUFcmTii8C2+zeMjvFGvgA=");
  EXPECT_EQ(base64Encode(hmacSha1("Jefe", "what do ya want for nothing?")),
            "7/zfauXrL6LSdBbV8YTfnCWafHk=");
  EXPECT_EQ(base64Encode(hmacSha1(std::string(20, '\xaa'), std::string(50, '\xdd'))),
            "El1zQrmsEc2Ro5r0iqF7T2PxddM=");
}

TEST(KovoUtilsTest, Md5OfTextsAndFilesOfAnySize) {
  EXPECT_EQ(WinKOVOUtils::getMD5ChecksumOfText(""), "1B2M2Y8AsgTpgAmY7PhCfg==");
  // RFC 1321: f96b697d7cb7938d525a2f31aaf161d0.
  EXPECT_EQ(WinKOVOUtils::getMD5ChecksumOfText("message digest"),
            base64Encode("\xf9\x6b\x69\x7d\x7c\xb7\x93\x8d\x52\x5a\x2f\x31\xaa\xf1\x61\xd0"));

  test::TempDir directory;
  const std::string path = directory.file("data");
  // Around the size of a reading block.
  for (const std::size_t size : {0U, 1U, 1048575U, 1048576U, 1048577U, 3000000U}) {
    std::string content(size, '\0');
    for (std::size_t i = 0; i < size; ++i) {
      content[i] = static_cast<char>(i * 31 >> 7);
    }
    std::ofstream(path, std::ios::binary | std::ios::trunc) << content;
    EXPECT_EQ(WinKOVOUtils::getMD5Checksum(path), WinKOVOUtils::getMD5ChecksumOfText(content))
        << size;
  }
  int asked = 0;
  const Interrupt interrupt = [&asked] { return ++asked == 2; };
  EXPECT_EQ(WinKOVOUtils::getMD5Checksum(path, &interrupt), "");
  EXPECT_EQ(asked, 2);
}

TEST(ClockTest, SystemTimeIsMillisecondsSince1970) {
  const std::int64_t now = Clock::system().nowMilliseconds();
  EXPECT_NEAR(static_cast<double>(now) / 1000, static_cast<double>(std::time(nullptr)), 2);
}

TEST(ClockTest, InterruptEndsASleepOfAnyLength) {
  for (const std::int64_t length :
       {std::int64_t{3600'000}, std::numeric_limits<std::int64_t>::max()}) {
    int asked = 0;
    const Interrupt interrupt = [&asked] { return ++asked == 3; };
    const auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(Clock::system().sleepMilliseconds(length, &interrupt));
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
  }
}

TEST(ClockTest, NoTimeAndNoInterruptReturnAtOnce) {
  const Interrupt empty;
  EXPECT_TRUE(Clock::system().sleepMilliseconds(0, nullptr));
  EXPECT_TRUE(Clock::system().sleepMilliseconds(-1, &empty));
}

}  // namespace
}  // namespace kovo
