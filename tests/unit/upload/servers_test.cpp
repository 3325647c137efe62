#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <rapidjson/document.h>

#include <memory>
#include <string>

#include "cache/sqlite_resume_cache.h"
#include "http/mime_source_factory.h"
#include "platform/kovo_utils.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"
#include "upload/aws_signature.h"
#include "upload/server.h"

namespace kovo::test {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::EndsWith;
using testing::Not;

constexpr char kAwsAnswer[] =
    R"({"cloudProvider":"aws","_links":{"multipart":{"href":"https://b.s3.amazonaws.com/k"},)"
    R"("finalize":{"href":"https://sync/f"}},"aws":{"assetARN":"arn","uploadId":"u1",)"
    R"("authentication":{"accessKey":"AK","secretKey":"SK","sessionToken":"ST"}}})";
constexpr char kAzureAnswer[] =
    R"({"cloudProvider":"azure","_links":{"multipart":{"href":"https://acc.blob/c/o"},)"
    R"("finalize":{"href":"https://sync/f"}},"azure":{"token":"sv=1&sig=x","bucketName":"c",)"
    R"("objectId":"o"}})";

std::unique_ptr<Server> makeServer(const std::string& name, const std::string& answer) {
  auto server = Server::CreateServer(name);
  EXPECT_TRUE(server->processResponse(answer));
  return server;
}

std::string replaced(std::string text, const std::string& what, const std::string& with) {
  const auto position = text.find(what);
  EXPECT_NE(position, std::string::npos) << what;
  return text.replace(position, what.size(), with);
}

TEST(AmazonServer, AddressesAndSignsParts) {
  const auto server = makeServer("aws", kAwsAnswer);
  const std::string url = server->getChunkUrl("ignored", 4, false);
  EXPECT_EQ(url, "https://b.s3.amazonaws.com/k?partNumber=5&uploadId=u1");

  HeaderList headers;
  server->addChunkHeaders(KOVO_CHUNK_TYPE_CHUNK, url, 4, "text/plain", headers);
  ASSERT_EQ(headers.size(), 4u);
  EXPECT_EQ(headers[0].first, "Date");
  EXPECT_THAT(headers[0].second, EndsWith(" GMT"));
  EXPECT_EQ(headers[1], Header("Host", "b.s3.amazonaws.com"));
  EXPECT_EQ(headers[2], Header("x-amz-security-token", "ST"));
  const AwsRequestToSign request{KOVO_HTTP_PUT, "text/plain", headers[0].second, "ST", url};
  EXPECT_EQ(headers[3], Header("Authorization", "AWS AK:" + awsSignature(request, "SK")));

  // A port of its own belongs to the host's name on the wire.
  headers.clear();
  server->addChunkHeaders(KOVO_CHUNK_TYPE_CHUNK, "http://h:9000/k", 4, "", headers);
  EXPECT_EQ(headers[1], Header("Host", "h:9000"));

  headers.clear();
  makeServer("aws", replaced(kAwsAnswer, "\"ST\"", "\"\""))
      ->addChunkHeaders(KOVO_CHUNK_TYPE_CHUNK, url, 0, "", headers);
  EXPECT_THAT(headers, Not(Contains(testing::Field(&Header::first, "x-amz-security-token"))));
}

TEST(AmazonServer, ListsPartsInOrderInTheFinalisationDocument) {
  const auto server = makeServer("aws", kAwsAnswer);
  server->setFileChecksum("md5==");
  server->processChunkResponseHeader(2, {"ETag", "\"c\""});
  server->processChunkResponseHeader(0, {"etag", "\"a\""});
  server->processChunkResponseHeader(0, {"ETag", "\"later\""});
  server->processChunkResponseHeader(0, {"Content-Type", "x"});
  server->processChunkResponseHeader(1, {"ETAG", "\"b\""});
  EXPECT_EQ(server->createFinalisationBody("", 77),
            R"({ "segments":[{ "segmentNumber":1,"entityTag":"a"},{ "segmentNumber":2,"entityTag":)"
            R"("b"},{ "segmentNumber":3,"entityTag":"c"}],"aws": { "authentication": { )"
            R"("accessKey":"AK","secretKey":"SK","sessionToken":"ST"}, "assetARN":"arn",)"
            R"("uploadId":"u1"},"md5":"md5==","type":"application/octet-stream",)"
            R"("contentLength":77})");
}

TEST(FinalisationDocument, CannotBeBrokenOpen) {
  const std::string hostile = R"(\"}],\"x\":\"\n)";
  const auto aws = makeServer("aws", replaced(kAwsAnswer, "\"arn\"", "\"" + hostile + "\""));
  aws->processChunkResponseHeader(0, {"ETag", "unquoted"});
  aws->processChunkResponseHeader(1, {"ETag", "\"a\",\"x\":\"b\""});
  const auto azure = makeServer("azure", replaced(kAzureAnswer, "\"o\"", "\"" + hostile + "\""));
  for (Server* server : {aws.get(), azure.get()}) {
    server->setFileChecksum("\"}");
    const std::string body = server->createFinalisationBody("a\"b", 9);
    rapidjson::Document document;
    document.Parse(body.c_str());
    ASSERT_FALSE(document.HasParseError()) << body;
    EXPECT_EQ(document.MemberCount(), 5u) << body;
    EXPECT_STREQ(document["type"].GetString(), "a\"b");
    EXPECT_STREQ(document["md5"].GetString(), "\"}");
  }
  rapidjson::Document document;
  document.Parse(aws->createFinalisationBody("", 9).c_str());
  EXPECT_STREQ(document["aws"]["assetARN"].GetString(), "\"}],\"x\":\"\n");
  EXPECT_STREQ(document["segments"][0]["entityTag"].GetString(), "unquoted");
  EXPECT_STREQ(document["segments"][1]["entityTag"].GetString(), "\"a\",\"x\":\"b\"");
}

TEST(AzureServer, NumbersBlocksAndListsTheStoredOnes) {
  const auto server = makeServer("azure", kAzureAnswer);
  const std::string first = base64Encode(std::string(63, '0') + "1");
  const std::string second = base64Encode(std::string(63, '0') + "2");
  EXPECT_EQ(server->getChunkUrl("", 1, true),
            "https://acc.blob/c/o?sv=1&sig=x&comp=block&blockid=" + second);
  EXPECT_EQ(server->getChunkUrl("", 0, false),
            "https://acc.blob/c/o?sv=1&sig=x&comp=block&blockid=" + first);
  HeaderList headers;
  server->addChunkHeaders(KOVO_CHUNK_TYPE_CHUNK, "https://acc.blob/c/o", 0, "", headers);
  EXPECT_TRUE(headers.empty());

  server->processChunkResponseHeader(1, {"X-MS-Request-Id", "whatever"});
  server->processChunkResponseHeader(1, {"x-ms-request-id", "again"});
  server->processChunkResponseHeader(0, {"ETag", "no block"});
  server->processChunkResponseHeader(5, {"x-ms-request-id", "never asked for"});
  EXPECT_EQ(server->createFinalisationBody("text/plain", 3),
            R"({ "segments":[{ "blockId":")" + second +
                R"("}],"azure": { "token":"sv=1&sig=x","bucketName":"c","objectId":"o"},)"
                R"("md5":"","type":"text/plain","contentLength":3})");
}

TEST(ServerAnswer, IsRefusedWhenItIsIncompleteOrUnusable) {
  const LogCapture log(KOVO_LOG_ERROR);
  const auto accepts = [](const char* name, const std::string& answer) {
    return Server::CreateServer(name)->processResponse(answer);
  };
  EXPECT_FALSE(accepts("aws", "{}"));
  EXPECT_FALSE(accepts("aws", kAzureAnswer));
  EXPECT_FALSE(accepts("azure", kAwsAnswer));
  EXPECT_THAT(log.messages(),
              ElementsAre("Amazon MimeSourceFactory Failed to parse Sync Service JSON response",
                          "Amazon MimeSourceFactory Failed to parse Sync Service JSON response",
                          "Azure MimeSourceFactory Failed to parse Sync Service JSON response"));
  // Values that would leave their header, and links that lead nowhere or to the local disk.
  EXPECT_FALSE(accepts("aws", replaced(kAwsAnswer, "\"AK\"", R"("AK\r\nX: y")")));
  EXPECT_FALSE(accepts("aws", replaced(kAwsAnswer, "https://sync/f", "file:///etc/passwd")));
  EXPECT_FALSE(accepts("aws", replaced(kAwsAnswer, "https://b.s3.amazonaws.com/k", "")));
  for (const char* token : {"sig=x#", "sig= x"}) {
    EXPECT_FALSE(accepts("azure", replaced(kAzureAnswer, "sig=x", token)));
  }
}

class RecordedParts : public testing::Test {
 protected:
  const TempDir _folder;
  SqliteResumeCache _cache{_folder.path().c_str()};
  const std::string _path = "/data/file";

  std::unique_ptr<Server> start(const std::string& target) {
    auto server = Server::CreateServer("azure");
    server->setUpload(true, &_cache, _path, target);
    EXPECT_TRUE(server->processResponse(kAzureAnswer));
    server->loadRecordedSegments();
    return server;
  }
  static void store(Server& server, std::uint32_t index) {
    server.getChunkUrl("", index, false);
    server.processChunkResponseHeader(index, {"x-ms-request-id", "id"});
  }
  static std::size_t listed(Server& server) {
    rapidjson::Document document;
    document.Parse(server.createFinalisationBody("", 0).c_str());
    return document["segments"].Size();
  }
};

TEST_F(RecordedParts, AreListedAlsoAfterTheirRowsAreGone) {
  _cache.setUploadTarget(_path, "t");
  store(*start("t"), 0);
  const auto server = start("t");
  store(*server, 1);
  _cache.deleteFromCacheUpload(_path);
  store(*server, 2);
  EXPECT_EQ(listed(*server), 3u);
}

TEST_F(RecordedParts, OfAnotherUploadOfTheSameFileAreNeitherReadNorWritten) {
  _cache.setUploadTarget(_path, "t");
  const auto server = start("t");
  store(*server, 0);
  const auto other = start("other");
  store(*other, 7);
  EXPECT_EQ(listed(*other), 1u);
  EXPECT_EQ(listed(*server), 1u);
  std::set<std::int32_t> recorded;
  _cache.getChunksUploaded(_path, recorded);
  EXPECT_THAT(recorded, ElementsAre(1));
}

}  // namespace
}  // namespace kovo::test
