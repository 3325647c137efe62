#include "http/kovo_http_utils.h"

#include <gtest/gtest.h>

namespace kovo {
namespace {

TEST(KovoHttpUtilsTest, ContentRangeAgainstTheRequest) {
  struct Case {
    const char* value;
    std::uint64_t start;
    std::uint64_t length;
    bool valid;
  };
  const Case cases[] = {
      {"bytes 0-99/1000", 0, 100, true},
      {"bytes 0-99/1000", 0, 50, false},
      {"bytes 0-99/1000", 0, 0, true},
      {"bytes 0-49/1000", 0, 100, true},
      {"bytes 100-199/*", 100, 100, true},
      {"bytes 100-199/150", 100, 100, false},
      {"bytes 0-99/100", 10, 100, false},
      {"  bytes 5-9/10  ", 5, 5, true},
      {"bytes=0-99/100", 0, 100, false},
      {"items 0-99/100", 0, 100, false},
      {"bytes 0-99", 0, 100, false},
      {"bytes -99/100", 0, 100, false},
      {"bytes 0-/100", 0, 100, false},
      {"bytes 0-99/", 0, 100, false},
      {"bytes 0-99/x", 0, 100, false},
      {"bytes */100", 0, 100, false},
      {"bytes 9-5/100", 9, 5, false},
      {"bytes 0-99999999999999999999/*", 0, 0, false},
      {"bytes 5-9/99999999999999999999", 5, 5, false},
      // A start and length whose sum leaves 64 bits.
      {"bytes 5-18446744073709551615/*", 5, 18446744073709551615u, true},
      {"", 0, 0, false},
      {"-/", 0, 0, false},
      {"bytes", 0, 0, false},
  };
  for (const Case& test : cases) {
    EXPECT_EQ(KovoHttpUtils::validateContentRangeHeader(test.value, test.start, test.length),
              test.valid)
        << test.value << " for " << test.start << " length " << test.length;
  }
}

TEST(KovoHttpUtilsTest, UrlForTheLogHoldsNoSecret) {
  EXPECT_EQ(KovoHttpUtils::redactUrl("https://u:p@w@host:1/a@b?sig=x#y"), "https://host:1/a@b");
  EXPECT_EQ(KovoHttpUtils::redactUrl("http://host"), "http://host");
  EXPECT_EQ(KovoHttpUtils::redactUrl("u:p@host/a"), "host/a");
  EXPECT_EQ(KovoHttpUtils::redactUrl(""), "");
}

}  // namespace
}  // namespace kovo
