#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <utility>

#include "http/wkovo_request.h"
#include "support/fake_transfer.h"
#include "support/log_capture.h"
#include "support/resource.h"
#include "support/scripted_http_client.h"
#include "support/temp_dir.h"

namespace kovo {

/* A request between a fake transfer and a scripted server. */
class RequestTest : public testing::Test {
 protected:
  RequestTest() { test::writeFile(_path, ""); }

  std::unique_ptr<Request> make(kovo_http_verb verb, Operation operation, std::string path = {},
                                bool discardBody = false) {
    return createRequest(_transfer, verb, _url, operation, path, discardBody, _client, &_http);
  }
  std::unique_ptr<Request> makeRanged(Operation operation, std::int64_t start, std::int64_t length,
                                      std::int32_t number = 0) {
    return createRangedRequest(_transfer, KOVO_HTTP_GET, _url, operation,
                               operation == OP_DOWNLOAD_FILE_RANGE ? _path : std::string(),
                               KovoNumberedRange(start, length, number), false, _client, &_http);
  }
  void answer(test::ScriptedResponse response) { _http.responses.push_back(std::move(response)); }
  /* A 206 for bytes first to last of a resource, with this body. */
  void answerPartial(std::uint64_t first, std::uint64_t last, std::string body) {
    answer(test::response(206,
                          {{"Content-Length", std::to_string(body.size())},
                           {"Content-Range", "bytes " + std::to_string(first) + "-" +
                                                 std::to_string(last) + "/100000000"},
                           {"ETag", "\"v1\""}},
                          std::move(body)));
  }

  test::LogCapture _log;
  /* Ready for another request. */
  void forgetError() {
    _transfer.error.reset();
    _transfer.cancelled = false;
  }

  std::string _url = "http://host/path";
  test::TempDir _directory;
  const std::string _path = _directory.file("output");
  test::FakeTransfer _transfer;
  test::ScriptedHttpClient _http;
  std::shared_ptr<test::FakeCallbackHandler> _client =
      std::make_shared<test::FakeCallbackHandler>();
};

}  // namespace kovo
