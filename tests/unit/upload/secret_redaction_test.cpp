#include <gtest/gtest.h>

#include <string>

#include "upload/secret_redaction.h"

namespace kovo::test {
namespace {

TEST(SecretRedaction, KeepsWordsAndHidesCredentials) {
  EXPECT_EQ(redactSecrets("<Error><Code>NoSuchUpload</Code></Error>"),
            "<Error><Code>NoSuchUpload</Code></Error>");
  EXPECT_EQ(
      redactSecrets(R"({"uploadId":"u","authentication":{"accessKey": "AK","secretKey":"S\"K",)"
                    R"("sessionToken":"ST"},"token" : "sv=1"})"),
      R"({"uploadId":"u","authentication":{"accessKey": "***","secretKey":"***",)"
      R"("sessionToken":"***"},"token" : "***"})");
  EXPECT_EQ(redactSecrets("Authorization: AWS AK:sig=\nnext"), "Authorization: ***\nnext");
  EXPECT_EQ(redactSecrets("http://h/k?sv=1&sig=abc%2F&X-Amz-Security-Token=t#f"),
            "http://h/k?sv=1&sig=***&X-Amz-Security-Token=***");
  EXPECT_EQ(redactSecrets("<AWSAccessKeyId>AK</AWSAccessKeyId><SignatureProvided>x</A>"),
            "<AWSAccessKeyId>***</AWSAccessKeyId><SignatureProvided>***</A>");
}

TEST(SecretRedaction, HidesWhatATruncatedOrBrokenTextHolds) {
  EXPECT_EQ(redactSecrets("it\"s {\"secretKey\":\"leak"), "it\"s {\"secretKey\":\"***");
  EXPECT_EQ(redactSecrets("secretKey"), "secretKey");
  EXPECT_EQ(redactSecrets("secretKey="), "secretKey=");
  EXPECT_EQ(redactSecrets("{\"token\":{\"secretKey\":12,\"b\":3}}"),
            "{\"token\":{\"secretKey\":***,\"b\":3}}");
  EXPECT_EQ(redactSecrets("secretKey='\\"), "secretKey='***");
  // What looks like the value of one name is the next name.
  EXPECT_EQ(redactSecrets("bad token: \"secretKey\" : \"leak\""),
            "bad token: \"secretKey\" : \"***\"");
  EXPECT_EQ(redactSecrets("Authorization: Digest response='leak'x, qop=auth"),
            "Authorization: ***, qop=auth");
  EXPECT_EQ(redactSecrets("<a token=\"leak\">b</a>"), "<a token=\"***\">b</a>");
}

TEST(SecretRedaction, BoundsItsLength) {
  const std::string text(1'000'000, 'x');
  EXPECT_LT(redactSecrets(text).size(), 70'000u);
  EXPECT_LT(redactSecrets(std::string(1'000'000, '{')).size(), 70'000u);
}

}  // namespace
}  // namespace kovo::test
