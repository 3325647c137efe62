#include "request_fixture.h"

namespace kovo {
namespace {

using test::response;

class RetryTest : public RequestTest {
 protected:
  void answerTimes(int times, std::uint32_t status) {
    for (int i = 0; i < times; ++i) {
      answer(response(status, {{"Content-Length", "4"}}, "body"));
    }
  }
  std::string errorMessage() {
    return _transfer.offeredHttpError ? _transfer.offeredHttpError->message : std::string();
  }
};

TEST_F(RetryTest, EmptyResourceBecomesAWholeDownloadToTheSameFile) {
  answer(response(416, {{"Content-Range", "bytes */0"}}));
  answer(response(200, {{"Content-Length", "4"}}, "grew"));
  auto request = makeRanged(OP_DOWNLOAD_FILE_RANGE, 0, 100);
  request->run();
  EXPECT_TRUE(request->isComplete());
  EXPECT_TRUE(request->deliveredWholeResource());
  ASSERT_EQ(_http.sent.size(), 2u);
  EXPECT_EQ(_http.sent[0].header("Range"), "bytes=0-99");
  EXPECT_EQ(_http.sent[1].header("Range"), "");
  EXPECT_EQ(_transfer.file, "grew");
  EXPECT_TRUE(_client->deliveries.empty());
  EXPECT_EQ(request->getRange().length, 0);
}

TEST_F(RetryTest, UnsatisfiableRangesEnd) {
  answerTimes(2, 416);
  auto request = makeRanged(OP_DOWNLOAD_RANGE, 0, 100);
  request->run();
  EXPECT_EQ(_http.sent.size(), 2u);
  EXPECT_FALSE(request->isComplete());
  EXPECT_EQ(errorMessage(), "416 Reason. Initial Request Failed (No Retry Attempted)");

  // The client asked for this range: its error is the answer.
  _transfer.rangeGiven = true;
  _transfer.cancelled = false;
  answerTimes(1, 416);
  makeRanged(OP_DOWNLOAD_RANGE, 0, 100)->run();
  EXPECT_EQ(_http.sent.size(), 3u);
}

TEST_F(RetryTest, RefusedProxyCredentialsAreTriedThreeTimes) {
  answerTimes(1, 407);
  make(KOVO_HTTP_GET, OP_DOWNLOAD)->run();
  EXPECT_EQ(_http.sent.size(), 1u);
  EXPECT_EQ(errorMessage(), "407 Reason. Initial Request Failed (No Retry Attempted)");

  _transfer.error.reset();
  _transfer.cancelled = false;
  _transfer.proxyCredentials = {"user", "secret"};
  answerTimes(3, 407);
  auto request = make(KOVO_HTTP_GET, OP_DOWNLOAD);
  request->run();
  EXPECT_EQ(_http.sent.size(), 4u);
  EXPECT_EQ(errorMessage(), "407 Reason. Retry Limit Exceeded");
  EXPECT_EQ(_transfer.statusLines, (std::vector<std::uint32_t>{407, 407}));
  EXPECT_EQ(request->getErrorCode(), KOVO_ERROR_CHUNK_RETRY_FAILED);

  _transfer.error.reset();
  _transfer.cancelled = false;
  answerTimes(1, 407);
  answerTimes(1, 200);
  auto accepted = make(KOVO_HTTP_GET, OP_DOWNLOAD);
  accepted->run();
  EXPECT_TRUE(accepted->isComplete());
  EXPECT_EQ(_client->received, "body");
}

TEST_F(RetryTest, ChunkErrorsAreOfferedForRetry) {
  for (const bool retry : {true, false}) {
    _transfer.error.reset();
    _transfer.cancelled = false;
    _transfer.retryChunks = retry;
    _log.clear();
    answerTimes(1, 500);
    auto request = makeRanged(OP_DOWNLOAD_FILE_RANGE, 0, 100, 0);
    request->run();
    EXPECT_FALSE(request->isComplete());
    ASSERT_TRUE(_transfer.offeredHttpError);
    EXPECT_EQ(_transfer.offeredHttpError->httpStatus, 500u);
    EXPECT_EQ(_transfer.offeredHttpError->details, "body");
    EXPECT_EQ(_transfer.offeredError->code, KOVO_ERROR_CHUNK_HTTP_ERROR);
    EXPECT_EQ(request->getErrorCode(),
              retry ? KOVO_ERROR_CHUNK_HTTP_ERROR : KOVO_ERROR_CHUNK_RETRY_FAILED);
    EXPECT_EQ(_transfer.error == nullptr, retry);
    EXPECT_EQ(_log.find("Chunk 0 failed - Retrying. HTTPCode: 500 HTTPMessage: 500 Reason. Initial "
                        "Request Failed (No Retry Attempted)\n") != std::string::npos,
              retry);
    EXPECT_TRUE(_transfer.errorInHeaders);
    EXPECT_EQ(_transfer.file, "");
  }
  _transfer.retryChunks = true;
  _transfer.error.reset();
  _transfer.cancelled = false;
  auto refused = response(200);
  refused.sendFailure.emplace(HttpFailure::kPlatformFailure, "refused");
  answer(std::move(refused));
  auto request = makeRanged(OP_DOWNLOAD_FILE_RANGE, 0, 100, 3);
  request->run();
  EXPECT_EQ(request->getErrorCode(), HttpFailure::kPlatformFailure);
  EXPECT_FALSE(_transfer.error);
  EXPECT_NE(_log.find("Chunk 3 failed - Retrying. ErrorCode: 112007 ErrorMessage: Error: refused"),
            std::string::npos);
}

TEST_F(RetryTest, SingleRequestsDeliverTheErrorBodyToTheClient) {
  _transfer.chunkingAllowed = false;
  answerTimes(1, 404);
  auto request = make(KOVO_HTTP_GET, OP_DOWNLOAD_FILE, _path);
  request->run();
  EXPECT_EQ(_client->received, "body");
  EXPECT_EQ(_transfer.file, "");
  EXPECT_EQ(_transfer.statusLines, std::vector<std::uint32_t>{404});
  EXPECT_FALSE(_transfer.error);
  EXPECT_EQ(request->getErrorCode(), KOVO_ERROR_NONE);
  EXPECT_TRUE(request->failedWithHttpStatus());
  EXPECT_FALSE(request->isComplete());

  auto broken = response(404, {{"Content-Length", "100"}}, "half");
  broken.readFailure.emplace(HttpFailure::kPlatformFailure, "cut short");
  answer(std::move(broken));
  make(KOVO_HTTP_GET, OP_SEND_REQUEST)->run();
  ASSERT_TRUE(_transfer.error);
  EXPECT_EQ(_transfer.error->message, "Error: cut short");
}

TEST_F(RetryTest, StatusesOutsideHttpAreErrors) {
  answerTimes(1, 999);
  make(KOVO_HTTP_GET, OP_DOWNLOAD)->run();
  ASSERT_TRUE(_transfer.error);
  EXPECT_EQ(_transfer.error->message, "Unexpected HTTP status: 999");
}

}  // namespace
}  // namespace kovo
