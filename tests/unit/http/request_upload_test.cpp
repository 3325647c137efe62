#include <filesystem>

#include "request_fixture.h"

namespace kovo {
namespace {

using test::response;

class RequestUploadTest : public RequestTest {
 protected:
  RequestUploadTest() { _resource.writeTo(_file); }

  const test::Resource _resource{5, 300000};
  const std::string _file = _directory.file("input");
};

TEST_F(RequestUploadTest, FileIsStreamedAndCountedOnce) {
  answer(response(201, {{"Content-Length", "2"}}, "ok"));
  auto request = make(KOVO_HTTP_PUT, OP_UPLOAD_FILE, _file);
  EXPECT_EQ(request->getBodyLength(), 300000u);
  request->run();
  EXPECT_TRUE(request->isComplete());
  ASSERT_EQ(_http.sent.size(), 1u);
  EXPECT_TRUE(_http.sent[0].body == _resource.all());
  EXPECT_EQ(_http.sent[0].header("Content-Length"), "300000");
  EXPECT_EQ(_http.sent[0].header("Content-Type"), "application/octet-stream");
  EXPECT_EQ(_transfer.stats.uploaded, 300000u);
  EXPECT_EQ(_client->received, "ok");
  EXPECT_EQ(_client->progress, 300000u) << "the answer does not count";
}

TEST_F(RequestUploadTest, PartOfAFileIsSentAgainFromItsStart) {
  _transfer.range = KovoRange(0, 300000);
  auto again = response(200, {{"Content-Length", "0"}});
  again.rewindAfter = 70000;
  answer(std::move(again));
  auto request = createRangedRequest(_transfer, KOVO_HTTP_PUT, _url, OP_UPLOAD_FILE, _file,
                                     KovoNumberedRange(100000, 100000, 1), true, _client, &_http);
  request->run();
  EXPECT_TRUE(request->isComplete());
  EXPECT_TRUE(_http.sent.at(0).body == _resource.bytes(100000, 100000));
  EXPECT_EQ(_client->progress, 100000u);
}

TEST_F(RequestUploadTest, ShortBodyIsReportedOnce) {
  _client->requestBody = std::string(100000, 'x');
  _client->requestBodyAvailable = 70000;
  answer(response(200));
  auto request = make(KOVO_HTTP_PUT, OP_UPLOAD_MEMORY);
  request->run();
  EXPECT_EQ(request->getErrorCode(), KOVO_ERROR_NOT_ENOUGH_DATA);
  ASSERT_TRUE(_transfer.error);
  EXPECT_EQ(_transfer.error->message,
            "Data Source incomplete: 70000 bytes received from 100000 expected.\n");
  EXPECT_EQ(_client->progress, 0u);
  EXPECT_FALSE(request->isComplete());

  forgetError();
  auto shrunk = make(KOVO_HTTP_PUT, OP_UPLOAD_FILE, _file);
  EXPECT_EQ(shrunk->getBodyLength(), 300000u);
  std::filesystem::resize_file(_file, 1000);
  answer(response(200));
  shrunk->run();
  EXPECT_EQ(shrunk->getErrorCode(), KOVO_ERROR_NOT_ENOUGH_DATA);
}

TEST_F(RequestUploadTest, MissingFileSendsNothing) {
  auto request = make(KOVO_HTTP_PUT, OP_UPLOAD_FILE, _directory.file("missing"));
  request->run();
  EXPECT_TRUE(_http.sent.empty());
  ASSERT_TRUE(_transfer.error);
  EXPECT_EQ(_transfer.error->code, KOVO_ERROR_FILE_NOT_FOUND);
  EXPECT_EQ(_transfer.error->message, "Invalid input stream: File not found");
}

TEST_F(RequestUploadTest, EndlessAnswerToAPartEnds) {
  auto endless = response(200, {{"X", "y"}}, std::string(20 << 20, 'x'));
  std::size_t taken = 0;
  endless.onRead = [&taken](std::size_t delivered) { taken = delivered; };
  answer(std::move(endless));
  auto part = make(KOVO_HTTP_PUT, OP_UPLOAD_FILE, _file, true);
  part->run();
  EXPECT_TRUE(part->isComplete());
  EXPECT_LE(taken, std::size_t{16} << 20);
}

}  // namespace
}  // namespace kovo
