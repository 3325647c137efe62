#include <gtest/gtest.h>

#include <string>

#include "platform/kovo_utils.h"
#include "upload/aws_signature.h"
#include "upload/s3_endpoint.h"

namespace kovo::test {
namespace {

class S3Endpoint : public testing::Test {
 protected:
  ~S3Endpoint() override { setS3Endpoint(nullptr); }
};

TEST(AwsSignature, IsThePublishedOneOfTheProvidersExample) {
  // The worked PUT example of the provider's signature version 2 documentation.
  const AwsRequestToSign request{KOVO_HTTP_PUT, "image/jpeg", "Tue, 27 Mar 2007 21:15:45 +0000", "",
                                 "https://awsexamplebucket1.s3.us-west-1.amazonaws.com/photos/"
                                 "puppy.jpg"};
  EXPECT_EQ(awsStringToSign(request),
            "PUT\n\nimage/jpeg\nTue, 27 Mar 2007 21:15:45 +0000\n"
            "/awsexamplebucket1/photos/puppy.jpg");
  EXPECT_EQ(awsSignature(request, "wJalrXUtnFEMI/K7MDENG/bPxRfiCYEXAMPLEKEY"),
            "iqRzw+ileNPu1fhspnRs8nOjjIA=");
}

TEST(AwsSignature, CoversTheSessionTokenAndTheQuery) {
  AwsRequestToSign request{
      KOVO_HTTP_PUT, "application/octet-stream", "Wed, 18 Nov 2026 10:05:07 GMT",
      "TOKEN//+=", "https://s3.amazonaws.com/bucket/a%20key?partNumber=2&uploadId=u"};
  const std::string text =
      "PUT\n\napplication/octet-stream\nWed, 18 Nov 2026 10:05:07 GMT\n"
      "x-amz-security-token:TOKEN//+=\n/bucket/a%20key?partNumber=2&uploadId=u";
  EXPECT_EQ(awsStringToSign(request), text);
  EXPECT_EQ(awsSignature(request, "secret"), base64Encode(hmacSha1("secret", text)));

  request.verb = KOVO_HTTP_DELETE;
  EXPECT_EQ(awsStringToSign(request), "");
}

TEST_F(S3Endpoint, RecognisesThePublicFormsByDefault) {
  const char* const forms[] = {"s3.amazonaws.com",
                               "s3.eu-west-1.amazonaws.com",
                               "s3-eu-west-1.amazonaws.com",
                               "s3.dualstack.eu-west-1.amazonaws.com",
                               "S3-Accelerate.AmazonAWS.com",
                               "s3-accelerate.dualstack.amazonaws.com",
                               "s3.cn-north-1.amazonaws.com.cn"};
  for (const std::string form : forms) {
    EXPECT_EQ(canonicalS3Resource("https://" + form + "/b/k?q=1"), "/b/k?q=1") << form;
    EXPECT_EQ(canonicalS3Resource("https://bucket." + form + ":8443/k?q=1#f"), "/bucket/k?q=1")
        << form;
    EXPECT_EQ(canonicalS3Resource("https://my.own.s3.bucket." + form + "/"), "/my.own.s3.bucket/")
        << form;
  }
  for (const char* host : {"example.com", "amazonaws.com", "ec2.eu-west-1.amazonaws.com",
                           "s3.amazonaws.com.example.com", "s3amazonaws.com", "127.0.0.1:9000"}) {
    EXPECT_EQ(canonicalS3Resource("https://" + std::string(host) + "/b/k"), "/") << host;
  }
  EXPECT_EQ(canonicalS3Resource("not a url"), "/");
}

TEST_F(S3Endpoint, TakesTheConfiguredDomainInstead) {
  ASSERT_EQ(setS3Endpoint("Storage.Example"), KOVO_ERROR_NONE);
  EXPECT_EQ(canonicalS3Resource("http://storage.example:9000/b/k?x"), "/b/k?x");
  EXPECT_EQ(canonicalS3Resource("http://b.STORAGE.example:9000/k"), "/b/k");
  EXPECT_EQ(canonicalS3Resource("http://b.storage.example"), "/b/");
  EXPECT_EQ(canonicalS3Resource("http://bstorage.example/k"), "/");
  EXPECT_EQ(canonicalS3Resource("https://b.s3.amazonaws.com/k"), "/");

  ASSERT_EQ(setS3Endpoint("127.0.0.1"), KOVO_ERROR_NONE);
  EXPECT_EQ(canonicalS3Resource("http://127.0.0.1:4568/b/k"), "/b/k");
  ASSERT_EQ(setS3Endpoint("[::1]"), KOVO_ERROR_NONE);
  EXPECT_EQ(canonicalS3Resource("http://[::1]:4568/b/k"), "/b/k");

  ASSERT_EQ(setS3Endpoint(""), KOVO_ERROR_NONE);
  EXPECT_EQ(canonicalS3Resource("https://b.s3.amazonaws.com/k"), "/b/k");
}

TEST_F(S3Endpoint, RefusesWhatIsNoHostNameAndKeepsTheFormerOne) {
  ASSERT_EQ(setS3Endpoint("one.example"), KOVO_ERROR_NONE);
  const std::string longLabel(64, 'a');
  for (const char* text : {"http://x", "x:9000", "a b", "a..b", ".a", "a.", "-a", "a-", "x/y",
                           "x\n", "[zz]", longLabel.c_str(), "\xC3\xA9"}) {
    EXPECT_EQ(setS3Endpoint(text), KOVO_ERROR_INVALID_PARAMETERS) << text;
  }
  EXPECT_EQ(canonicalS3Resource("http://one.example/b/k"), "/b/k");
}

}  // namespace
}  // namespace kovo::test
