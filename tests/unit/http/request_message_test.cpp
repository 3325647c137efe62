#include "request_fixture.h"

namespace kovo {
namespace {

using test::response;

class RequestMessageTest : public RequestTest {
 protected:
  /* What goes out for this request, which is answered with an empty 200. */
  test::SentRequest sent(Request& request) {
    answer(response(200, {{"Content-Length", "0"}}));
    request.run();
    EXPECT_TRUE(_transfer.error == nullptr) << _transfer.error->description();
    return _http.sent.empty() ? test::SentRequest() : _http.sent.back();
  }
  std::string failure(Request& request) {
    request.run();
    EXPECT_TRUE(_http.sent.empty());
    EXPECT_TRUE(request.isFinished());
    EXPECT_EQ(request.getErrorCode(), _transfer.error ? _transfer.error->code : 0);
    return _transfer.error ? _transfer.error->description() : std::string();
  }
};

TEST_F(RequestMessageTest, RangesAndSettings) {
  auto request = makeRanged(OP_DOWNLOAD_RANGE, 0, 100);
  _transfer.validateChain = false;
  _transfer.timeout = 17;
  _transfer.proxyCredentials = {"user", "secret"};
  auto message = sent(*request);
  EXPECT_EQ(message.verb, "GET");
  EXPECT_EQ(message.header("Range"), "bytes=0-99");
  EXPECT_EQ(message.header("Accept-Encoding"), "*");
  EXPECT_FALSE(message.hasBody);
  EXPECT_FALSE(message.validateCertificateChain);
  EXPECT_EQ(message.timeoutSeconds, 17u);
  EXPECT_EQ(message.proxyUsername, "user");
  EXPECT_EQ(message.proxyPassword, "secret");

  _transfer.range = KovoRange(500, 0);
  _transfer.gzipWanted = true;
  message = sent(*makeRanged(OP_DOWNLOAD_RANGE, 500, 0));
  EXPECT_EQ(message.header("Range"), "bytes=500-");
  EXPECT_EQ(message.header("Accept-Encoding"), "gzip");
}

TEST_F(RequestMessageTest, LaterHeadersReplaceEarlierOnes) {
  _transfer.requestHeaders = {{"accept-encoding", "br"}, {"X-One", "1"}, {"X-Empty", ""}};
  _transfer.chunkHeaders = {{"x-one", "2"}, {"Range", "bytes=1-2"}};
  const auto message = sent(*makeRanged(OP_DOWNLOAD_RANGE, 0, 100));
  EXPECT_EQ(message.headers,
            (HeaderList{{"Range", "bytes=1-2"}, {"Accept-Encoding", "br"}, {"X-One", "2"}}));
}

TEST_F(RequestMessageTest, ParametersGoIntoTheQuery) {
  _transfer.parameters = {{"a", "1"}, {"b", "x y"}, {"c", ""}, {"", "d"}};
  const std::pair<std::string, std::string> cases[] = {
      {"http://host/p", "http://host/p?a=1&b=x%20y"},
      {"http://host/p?q=1", "http://host/p?q=1&a=1&b=x%20y"},
      {"http://host/p?", "http://host/p?a=1&b=x%20y"},
      {"http://host/p#part?", "http://host/p?a=1&b=x%20y"},
      {"http://host?q", "http://host/?q&a=1&b=x%20y"},
      {"http://host", "http://host/?a=1&b=x%20y"},
  };
  for (const auto& [url, expected] : cases) {
    _url = url;
    EXPECT_EQ(sent(*make(KOVO_HTTP_GET, OP_DOWNLOAD)).url, expected);
  }
}

TEST_F(RequestMessageTest, ParametersOfAPostWithoutBodyAreItsForm) {
  _transfer.parameters = {{"a", "1"}, {"b", "x y"}};
  auto message = sent(*make(KOVO_HTTP_POST, OP_SEND_REQUEST));
  EXPECT_EQ(message.url, "http://host/path");
  EXPECT_EQ(message.body, "a=1&b=x+y");
  EXPECT_EQ(message.header("Content-Type"), "application/x-www-form-urlencoded");
  EXPECT_EQ(message.header("Content-Length"), "9");

  _client->requestBody = "body";
  message = sent(*make(KOVO_HTTP_POST, OP_SEND_REQUEST));
  EXPECT_EQ(message.url, "http://host/path?a=1&b=x%20y");
  EXPECT_EQ(message.body, "body");
}

TEST_F(RequestMessageTest, EmptyBodyIsNoByte) {
  const auto message = sent(*make(KOVO_HTTP_PUT, OP_UPLOAD_FILE, _path));
  EXPECT_TRUE(message.hasBody);
  EXPECT_EQ(message.body, "");
  EXPECT_EQ(message.header("Content-Length"), "0");
  EXPECT_EQ(_transfer.stats.uploaded, 0u);
}

TEST_F(RequestMessageTest, WhatCannotBeSentIsAnError) {
  EXPECT_EQ(failure(*make(7, OP_SEND_REQUEST)),
            "KOVO Operation Error. Unrecognised httpVerb in WKovoRequest");
  _transfer.error.reset();
  _transfer.cancelled = false;
  EXPECT_EQ(failure(*make(KOVO_HTTP_GET, static_cast<Operation>(9))),
            "KOVO Operation Error. Unrecognised operation in WKovoRequest");
  _transfer.error.reset();
  _transfer.cancelled = false;
  _url = "no url";
  EXPECT_EQ(failure(*make(KOVO_HTTP_GET, OP_DOWNLOAD))
                .rfind("KOVO Operation Error. startOperation - Unexpected exception caught: ", 0),
            0u);
  _url = "http://host/";
  for (const Header& header : {Header{"X-Split", "a\r\nInjected: b"}, Header{"X Space", "a"}}) {
    _transfer.error.reset();
    _transfer.cancelled = false;
    _transfer.chunkHeaders = {header};
    EXPECT_EQ(failure(*make(KOVO_HTTP_GET, OP_DOWNLOAD)),
              "KOVO Operation Error. Invalid request header: " + header.first);
  }
}

TEST_F(RequestMessageTest, NothingIsSentForACancelledTransfer) {
  _transfer.cancelled = true;
  EXPECT_EQ(failure(*make(KOVO_HTTP_GET, OP_DOWNLOAD)), "");
}

}  // namespace
}  // namespace kovo
