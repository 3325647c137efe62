#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>

#include "platform/kovo_utils.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"

namespace kovo {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr char kEmptyMd5[] = "1B2M2Y8AsgTpgAmY7PhCfg==";

std::string hex(const std::string& bytes) {
  std::string text;
  char digits[3];
  for (const char byte : bytes) {
    std::snprintf(digits, sizeof digits, "%02x", static_cast<unsigned char>(byte));
    text += digits;
  }
  return text;
}

TEST(CryptoTest, Base64PadsToGroupsOfFour) {
  EXPECT_EQ(base64Encode(""), "");
  EXPECT_EQ(base64Encode("f"), "Zg==");
  EXPECT_EQ(base64Encode("fo"), "Zm8=");
  EXPECT_EQ(base64Encode("foo"), "Zm9v");
  EXPECT_EQ(base64Encode("foob"), "Zm9vYg==");
  EXPECT_EQ(base64Encode(std::string("\xFF\xFE\x00\xFB", 4)), "//4A+w==");
}

TEST(CryptoTest, HmacSha1OfThePublishedVectors) {
  // RFC 2202, cases 1 to 3.
  EXPECT_EQ(hex(hmacSha1(std::string(20, '\x0b'), "Hi There")),
            "b617318655057264e28bc0b6fb378c8ef146be00");
  EXPECT_EQ(hex(hmacSha1("Jefe", "what do ya want for nothing?")),
            "effcdf6ae5eb2fa2d27416d5f184df9c259a7c79");
  EXPECT_EQ(hex(hmacSha1(std::string(20, '\xaa'), std::string(50, '\xdd'))),
            "125d7342b9ac11cd91a39af48aa17b4f63f175d3");
}

TEST(CryptoTest, Md5OfTextsAndFilesOfAnySize) {
  EXPECT_EQ(WinKOVOUtils::getMD5ChecksumOfText(""), kEmptyMd5);
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
  EXPECT_THAT(WinKOVOUtils::getMD5Checksum(path, &interrupt), IsEmpty());
  EXPECT_EQ(asked, 2);
}

TEST(CryptoTest, Md5WithoutAFileIsEmptyAndLogged) {
  test::LogCapture log;
  test::TempDir directory;
  EXPECT_THAT(WinKOVOUtils::getMD5Checksum(""), IsEmpty());
  EXPECT_THAT(WinKOVOUtils::getMD5Checksum(directory.file("missing")), IsEmpty());
  EXPECT_THAT(WinKOVOUtils::getMD5Checksum(directory.path().string()), IsEmpty());
  EXPECT_THAT(log.messages(),
              ElementsAre("WinKOVOUtils::getMD5Checksum - local file path cannot be empty",
                          "WinKOVOUtils::getMD5Checksum- failed opening file",
                          "WinKOVOUtils::getMD5Checksum- failed opening file"));
}

}  // namespace
}  // namespace kovo
