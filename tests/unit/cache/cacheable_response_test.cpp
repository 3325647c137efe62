#include "cache/cacheable_response.h"

#include <gtest/gtest.h>

#include "core/assertion.h"

namespace kovo {
namespace {

struct Case {
  const char* what;
  HeaderList headers;
  bool isKept;
  std::uint64_t firstByte = 0;
};

// Every body has 100 bytes, the entry limit is 200.
TEST(CacheableResponse, IsKeptOnlyWhenItsHeadersProveWhatItHolds) {
  setAssertionHandler([](const char*, const char*, int) {});
  const Header tag{"ETag", "\"a\""};
  const Header length{"content-length", "100"};
  const auto range = [](const char* value) { return Header{"Content-Range", value}; };
  const Case cases[] = {
      {"whole", {tag, length}, true},
      {"by date", {{"last-modified", "Wed"}, length}, true},
      {"no validator", {length}, false},
      {"empty validators", {{"ETag", ""}, {"Last-Modified", ""}, length}, false},
      {"weak tag", {{"ETag", "w/\"a\""}, {"Last-Modified", "Wed"}, length}, false},
      {"no-store", {tag, length, {"cache-control", "private, No-Store"}}, false},
      {"no-cache", {tag, length, {"Cache-Control", "no-cache"}}, false},
      {"max-age", {tag, length, {"Cache-Control", "max-age=60"}}, true},
      {"no length", {tag}, false},
      {"length not a number", {tag, {"Content-Length", "100x"}}, false},
      {"length overflows", {tag, {"Content-Length", "99999999999999999999"}}, false},
      {"length above the limit", {tag, {"Content-Length", "201"}}, false},
      {"length of other bytes", {tag, {"Content-Length", "99"}}, false},
      {"two lengths", {tag, length, {"Content-Length", "99"}}, false},
      {"encoded", {tag, length, {"Content-Encoding", "gzip"}}, false},
      {"identity", {tag, length, {"Content-Encoding", "identity"}}, true},
      {"parts", {tag, length, {"Content-Type", "multipart/byteranges; boundary=x"}}, false},
      {"range", {tag, length, range("bytes 1000-1099/5000")}, true, 1000},
      {"range, unit in capitals", {tag, length, range("Bytes 7-106/*")}, true, 7},
      {"last range wins", {tag, length, range("bytes 0-99/*"), range("bytes 5-104/*")}, true, 5},
      {"range of another length", {tag, length, range("bytes 1000-1100/5000")}, false},
      {"range beyond the total", {tag, length, range("bytes 1000-1099/1099")}, false},
      {"range reversed", {tag, length, range("bytes 1099-1000/5000")}, false},
      {"range wraps", {tag, length, range("bytes 18446744073709551600-83/*")}, false},
      {"range beyond 63 bits",
       {tag, length, range("bytes 9223372036854775800-9223372036854775899/*")},
       false},
      {"unsatisfied range", {tag, length, range("bytes */5000")}, false},
      {"range open", {tag, length, range("bytes 1000-/5000")}, false},
      {"range without a total", {tag, length, range("bytes 1000-1099")}, false},
      {"other unit", {tag, length, range("items 0-99/100")}, false},
      {"garbage", {tag, length, range("- / - /")}, false},
  };
  for (const Case& one : cases) {
    CacheableResponse response;
    EXPECT_EQ(describeCacheable(one.headers, 200, 100, response), one.isKept) << one.what;
    if (one.isKept) {
      EXPECT_EQ(response.firstByte, one.firstByte) << one.what;
    }
  }
  CacheableResponse response;
  EXPECT_FALSE(describeCacheable({tag, {"Content-Length", "0"}}, 200, 0, response));
  setAssertionHandler(nullptr);
}

}  // namespace
}  // namespace kovo
