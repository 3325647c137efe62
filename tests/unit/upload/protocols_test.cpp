#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "body/string_source.h"
#include "support/log_capture.h"
#include "upload/amazon_s3_source_factory.h"
#include "upload/sync_service_source_factory.h"
#include "upload/upload_threshold.h"

namespace kovo::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr std::uint64_t kMiB = 1024 * 1024;

std::string readAll(DataSource& source) {
  std::string text;
  std::uint8_t buffer[7];  // smaller than any document
  std::size_t count = 0;
  while (source.hasMoreData() && source.read(buffer, sizeof buffer, count)) {
    text.append(reinterpret_cast<const char*>(buffer), count);
  }
  EXPECT_EQ(text.size(), source.getContentLength());
  return text;
}

std::unique_ptr<DataSource> text(const std::string& bytes) {
  return std::make_unique<StringSource>(bytes, "text/plain");
}

// --- S3 -----------------------------------------------------------------------------------------

class S3Upload : public testing::Test {
 protected:
  AmazonS3SourceFactory _factory;
  bool _finishNow = false;

  bool begin(const std::string& body, std::uint32_t status = 200) {
    return _factory.processInitialisationResponse(status, body, _finishNow);
  }
  std::string document() { return readAll(*_factory.createFinalisationSource("f", "", 0)); }
};

TEST_F(S3Upload, AddsItsParametersToTheUrl) {
  ASSERT_TRUE(begin("<X>\n<UploadId>id.-_1</UploadId></X>"));
  EXPECT_FALSE(_finishNow);
  EXPECT_EQ(_factory.getInitialisationUrl("http://h/k"), "http://h/k?uploads");
  EXPECT_EQ(_factory.getInitialisationUrl("http://h/k?a=1"), "http://h/k?a=1&uploads");
  EXPECT_EQ(_factory.getChunkUrl("http://h/k", 0, false),
            "http://h/k?partNumber=1&uploadId=id.-_1");
  EXPECT_EQ(_factory.getChunkUrl("http://h/k#f", 9999, true),
            "http://h/k?partNumber=10000&uploadId=id.-_1");
  EXPECT_EQ(_factory.getChunkUrl("http://h/k", MimeSourceFactory::kNoPart, true), "http://h/k");
  EXPECT_EQ(_factory.getFinalisationUrl("http://h/k?"), "http://h/k?uploadId=id.-_1");
}

TEST_F(S3Upload, TakesWhatStandsBetweenTheOuterTags) {
  EXPECT_TRUE(begin("<UploadId>a</UploadId><UploadId>b&c</UploadId>tail"));
  EXPECT_EQ(_factory.getFinalisationUrl("u"), "u?uploadId=a%3C/UploadId%3E%3CUploadId%3Eb%26c");
  // A body that would exhaust the stack of a recursive matcher.
  const std::string huge(8 * kMiB, 'x');
  EXPECT_TRUE(begin("<UploadId>" + huge + "</UploadId>"));
  EXPECT_TRUE(begin("<UploadId></UploadId></UploadId>"));
}

TEST_F(S3Upload, RefusesAnswersWithoutAnIdentifier) {
  const LogCapture log(KOVO_LOG_ERROR);
  const std::vector<std::string> bodies = {"",
                                           "<UploadId></UploadId>",
                                           "<UploadId>a",
                                           "a</UploadId>",
                                           "</UploadId>a<UploadId>",
                                           "<uploadid>a</uploadid>"};
  for (const std::string& body : bodies) {
    EXPECT_FALSE(begin(body)) << body;
    EXPECT_TRUE(_finishNow);
  }
  EXPECT_FALSE(begin("<UploadId>a</UploadId>", 403));
  ASSERT_EQ(log.lines().size(), bodies.size() + 1);
  EXPECT_EQ(log.lines()[0].message,
            "MimeSourceFactory Failed to parse chunking support response from S3.");
}

TEST_F(S3Upload, ListsPartsByNumber) {
  for (const auto& [index, tag] : {std::pair{2U, "\"c\""}, {0U, "\"a<&>\""}, {1U, "\"b\""}}) {
    _factory.processChunkResponseHeader(index, {"eTag", tag});
  }
  _factory.processChunkResponseHeader(1, {"ETag", "\"later\""});
  _factory.processChunkResponseHeader(MimeSourceFactory::kNoPart, {"ETag", "\"none\""});
  _factory.processChunkResponseHeader(7, {"Content-Type", "x"});
  EXPECT_EQ(document(),
            "<CompleteMultipartUpload><Part><PartNumber>1</PartNumber><ETag>\"a&lt;&amp;&gt;\""
            "</ETag></Part><Part><PartNumber>2</PartNumber><ETag>\"b\"</ETag></Part><Part>"
            "<PartNumber>3</PartNumber><ETag>\"c\"</ETag></Part></CompleteMultipartUpload>");
  EXPECT_TRUE(_factory.holdsAllParts(3));
  EXPECT_FALSE(_factory.holdsAllParts(4));
  // Sent again: the former tag no longer counts.
  _factory.getChunkUrl("u", 1, false);
  EXPECT_FALSE(_factory.holdsAllParts(3));
}

TEST_F(S3Upload, CutsPartsThatTheServiceAccepts) {
  EXPECT_EQ(_factory.adjustChunkSize(100 * kMiB, 2 * kMiB), 5 * kMiB);
  EXPECT_EQ(_factory.adjustChunkSize(100 * kMiB, 16 * kMiB), 16 * kMiB);
  EXPECT_EQ(_factory.adjustChunkSize(50000 * kMiB, 5 * kMiB), 5 * kMiB);
  EXPECT_EQ(_factory.adjustChunkSize(60000 * kMiB, 5 * kMiB), 6291456u);
  EXPECT_EQ(_factory.adjustChunkSize(0, 2 * kMiB), 5 * kMiB);
}

TEST_F(S3Upload, ReadsTheVerdictInTheCompletionsBody) {
  EXPECT_TRUE(_factory.acceptsFinalisation(""));
  EXPECT_TRUE(
      _factory.acceptsFinalisation("\n \n<CompleteMultipartUploadResult><Key>Errors</Key>"));
  EXPECT_TRUE(_factory.acceptsFinalisation("<Errors/><Error"));
  EXPECT_FALSE(_factory.acceptsFinalisation("   <?xml?>\n<Error><Code>InternalError</Code>"));
  EXPECT_FALSE(_factory.acceptsFinalisation("<Errors/><Error xmlns=\"x\">"));
}

// --- Sync service -------------------------------------------------------------------------------

constexpr char kPlan[] =
    R"({"cloudProvider":"aws","_links":{"multipart":{"href":"https://s3.amazonaws.com/b/k"},)"
    R"("finalize":{"href":"https://sync/f"}},"aws":{"assetARN":"arn","uploadId":"u1",)"
    R"("authentication":{"accessKey":"AK","secretKey":"SK","sessionToken":"ST"}}})";
constexpr char kMd5Of9As[] = "VS5qlyl8U+WSIIz5f7s7YA==";

class SyncUpload : public testing::Test {
 protected:
  SyncUpload() { UploadThreshold::set(8); }
  ~SyncUpload() override { UploadThreshold::set(UploadThreshold::kInitial); }

  HeaderList headers(kovo_chunk_type kind) {
    HeaderList list;
    _factory.addRequestHeaders(kind, "t", "https://s3.amazonaws.com/b/k", 0, list);
    return list;
  }

  SyncServiceSourceFactory _factory{nullptr, "f", true, 0};
  bool _finishNow = false;
};

TEST_F(SyncUpload, AsksForAPlanForALargeBody) {
  EXPECT_EQ(readAll(*_factory.createInitialisationSource(text("aaaaaaaaa"))), "");
  EXPECT_FALSE(_factory.initialisationWillCompleteTransfer());
  EXPECT_THAT(headers(KOVO_CHUNK_TYPE_INIT),
              ElementsAre(Header("X-Content-Length", "9"),
                          Header("Accept", "application/vnd.syncservice.v2.hal+json"),
                          Header("Content-MD5", kMd5Of9As)));
  EXPECT_TRUE(_factory.processInitialisationResponse(202, kPlan, _finishNow));
  EXPECT_FALSE(_finishNow);
  EXPECT_EQ(_factory.getFinalisationUrl("u"), "https://sync/f");
  EXPECT_EQ(_factory.getChunkUrl("u", 0, true),
            "https://s3.amazonaws.com/b/k?partNumber=1&uploadId=u1");
  EXPECT_EQ(headers(KOVO_CHUNK_TYPE_CHUNK).back().first, "Authorization");
  EXPECT_THAT(headers(KOVO_CHUNK_TYPE_FINALISE),
              ElementsAre(Header("Content-MD5", kMd5Of9As), Header("X-Content-Length", "9")));
  EXPECT_THAT(headers(KOVO_CHUNK_TYPE_SINGLE), IsEmpty());
  const std::string document = readAll(*_factory.createFinalisationSource("f", "", 9));
  EXPECT_THAT(document, testing::HasSubstr(std::string("\"md5\":\"") + kMd5Of9As + "\""));
}

TEST_F(SyncUpload, PrefersAChecksumItWasGiven) {
  EXPECT_TRUE(_factory.isChecksumNeeded(9));
  EXPECT_FALSE(_factory.isChecksumNeeded(8));
  _factory.createInitialisationSource(text("aaaaaaaaa"));
  _factory.offerComputedChecksum("computed");
  EXPECT_TRUE(_factory.setFileChecksum("given"));
  EXPECT_FALSE(_factory.isChecksumNeeded(9));
  EXPECT_EQ(headers(KOVO_CHUNK_TYPE_INIT).back(), Header("Content-MD5", "given"));
}

TEST_F(SyncUpload, LearnsTheThresholdFromEngineAndServer) {
  SyncServiceSourceFactory(nullptr, "f", true, 77);
  EXPECT_EQ(UploadThreshold::get(), 77u);
  SyncServiceSourceFactory(nullptr, "f", true, 0);
  EXPECT_EQ(UploadThreshold::get(), 77u);
  _factory.processChunkResponseHeader(MimeSourceFactory::kNoPart,
                                      {"x-upload-threshold", " 1048576 "});
  EXPECT_EQ(UploadThreshold::get(), 1048576u);
  for (const char* value : {"", "x", "5x", "-1", "99999999999999999999"}) {
    _factory.processChunkResponseHeader(0, {"X-Upload-Threshold", value});
    EXPECT_EQ(UploadThreshold::get(), 1048576u) << value;
  }
}

TEST_F(SyncUpload, CutsPartsThatTheServiceAccepts) {
  EXPECT_EQ(_factory.adjustChunkSize(9 * kMiB, 2 * kMiB), 5 * kMiB);
  EXPECT_EQ(_factory.adjustChunkSize(50000 * kMiB, 2 * kMiB), 5 * kMiB);
  EXPECT_EQ(_factory.adjustChunkSize(50000 * kMiB + 1, 2 * kMiB), (50000 * kMiB + 1) / 9999);
}

}  // namespace
}  // namespace kovo::test
