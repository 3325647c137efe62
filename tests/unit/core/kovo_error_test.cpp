#include "core/kovo_error.h"

#include <gtest/gtest.h>

#include <string>

namespace kovo {
namespace {

TEST(KovoErrorTest, TextsOfTheBordersAndTheGaps) {
  EXPECT_STREQ(errorText(0), "Success");
  EXPECT_STREQ(errorText(29), "Timeout");
  EXPECT_STREQ(errorText(42), "No StatusLine Callback Registered");
  for (const kovo_error gap : {30U, 31U, 38U, 39U, 43U, 99999U, 0x80000000U, 0xFFFFFFFFU}) {
    EXPECT_STREQ(errorText(gap), "Unrecognised kovo_error") << gap;
  }
  EXPECT_STREQ(errorText(100000), "Platform Status");
  EXPECT_STREQ(errorText(112007), "Platform Status");
}

TEST(KovoErrorTest, StatusClassesEndAtTheHundreds) {
  EXPECT_STREQ(httpStatusText(199), "Unrecognised kovo_http_status");
  EXPECT_STREQ(httpStatusText(200), "HTTP Status 2xx (Success)");
  EXPECT_STREQ(httpStatusText(299), "HTTP Status 2xx (Success)");
  EXPECT_STREQ(httpStatusText(300), "HTTP Status 3xx (Redirection)");
  EXPECT_STREQ(httpStatusText(499), "HTTP Status 4xx (Client Error)");
  EXPECT_STREQ(httpStatusText(500), "HTTP Status 5xx (Server Error)");
  EXPECT_STREQ(httpStatusText(600), "Unrecognised kovo_http_status");
  EXPECT_STREQ(httpStatusText(-200), "Unrecognised kovo_http_status");
}

TEST(KovoErrorTest, DescriptionNamesTheCodeThenTheMessage) {
  EXPECT_EQ(makeKovoError(KOVO_ERROR_CANCELLED, "x")->description(), "Cancelled. x");
  EXPECT_EQ(makeKovoError(KOVO_ERROR_RESUME_FAILED, "")->description(),
            "Unrecognised kovo_error. ");
}

}  // namespace
}  // namespace kovo
