#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "platform/http_client.h"

namespace kovo::test {

/** How one exchange goes. */
struct ScriptedResponse {
  HttpResponseHead head;
  std::string body;
  /* Most bytes that one read returns. */
  std::size_t maxRead = 1 << 20;
  /* Thrown by send, or where the body ends. */
  std::optional<HttpFailure> sendFailure;
  std::optional<HttpFailure> readFailure;
  /* Body bytes taken before the request body is rewound and sent again; 0: it is sent once. */
  std::size_t rewindAfter = 0;
  std::function<void()> onSend;
  /* Called before each read with the bytes delivered so far. */
  std::function<void(std::size_t)> onRead;
};

inline ScriptedResponse response(std::uint32_t status, HeaderList headers = {},
                                 std::string body = {}) {
  ScriptedResponse scripted;
  scripted.head = {status, "Reason", "Http11", std::move(headers)};
  scripted.body = std::move(body);
  return scripted;
}

/** What a request sent. */
struct SentRequest {
  std::string verb;
  std::string url;
  HeaderList headers;
  bool hasBody = false;
  std::string body;
  bool validateCertificateChain = true;
  std::string proxyUsername;
  std::string proxyPassword;
  std::uint32_t timeoutSeconds = 0;

  /** Empty when there is none. */
  std::string header(const std::string& name) const {
    for (const auto& [present, value] : headers) {
      if (present == name) {
        return value;
      }
    }
    return {};
  }
};

/** Plays one response after the other, and keeps what was sent for it. */
class ScriptedHttpClient : public HttpClient {
 public:
  std::deque<ScriptedResponse> responses;
  std::vector<SentRequest> sent;
  /* How many bytes each pull of a request body asks for. */
  std::size_t pullSize = 65536;
  std::size_t largestRead = 0;
  std::size_t largestRoom = 0;

  std::unique_ptr<HttpExchange> createExchange(Interrupt interrupt) override {
    if (responses.empty()) {
      ADD_FAILURE() << "an exchange that the script does not know";
      throw HttpFailure(HttpFailure::kPlatformFailure, "end of script");
    }
    auto exchange =
        std::make_unique<Exchange>(*this, std::move(responses.front()), std::move(interrupt));
    responses.pop_front();
    return exchange;
  }

 private:
  class Exchange : public HttpExchange {
   public:
    Exchange(ScriptedHttpClient& client, ScriptedResponse scripted, Interrupt interrupt)
        : _client(client), _scripted(std::move(scripted)), _interrupt(std::move(interrupt)) {}

    const HttpResponseHead& send(const HttpRequestMessage& message) override {
      SentRequest request{message.verb,
                          message.url,
                          message.headers,
                          message.body != nullptr,
                          {},
                          message.validateCertificateChain,
                          message.proxyUsername,
                          message.proxyPassword,
                          message.timeoutSeconds};
      if (message.body != nullptr) {
        request.body = pull(*message.body);
      }
      _client.sent.push_back(std::move(request));
      if (_scripted.onSend) {
        _scripted.onSend();
      }
      if (_interrupt()) {
        throw HttpCancelled();
      }
      if (_scripted.sendFailure) {
        throw *_scripted.sendFailure;
      }
      return _scripted.head;
    }

    /* Places bytes ahead as far as there is room, as the contract allows. */
    std::size_t read(std::uint8_t* buffer, std::size_t count, std::size_t room) override {
      if (_scripted.onRead) {
        _scripted.onRead(_delivered);
      }
      if (_interrupt()) {
        throw HttpCancelled();
      }
      _client.largestRead = std::max(_client.largestRead, count);
      _client.largestRoom = std::max(_client.largestRoom, room);
      if (_placed > _delivered) {
        EXPECT_EQ(buffer, _next) << "bytes placed ahead are lost";
      }
      const std::size_t left = _scripted.body.size() - _placed;
      const std::size_t ahead = _placed - _delivered;
      const std::size_t placed = std::min(left, room - std::min(room, ahead));
      std::memcpy(buffer + ahead, _scripted.body.data() + _placed, placed);
      _placed += placed;
      const std::size_t size = std::min({count, _scripted.maxRead, _placed - _delivered});
      if (size == 0 && _scripted.readFailure) {
        throw *_scripted.readFailure;
      }
      _delivered += size;
      _next = buffer + size;
      return size;
    }

   private:
    std::string pull(HttpRequestBody& body) {
      std::string bytes;
      std::string buffer(_client.pullSize, '\0');
      while (bytes.size() < body.length()) {
        std::size_t count = 0;
        if (!body.read(reinterpret_cast<std::uint8_t*>(buffer.data()), buffer.size(), count)) {
          throw HttpFailure(HttpFailure::kPlatformFailure, "body failed");
        }
        EXPECT_GT(count, 0u) << "the body ends before its length";
        bytes.append(buffer, 0, count);
        if (_scripted.rewindAfter != 0 && bytes.size() >= _scripted.rewindAfter) {
          _scripted.rewindAfter = 0;
          bytes.clear();
          if (!body.rewind()) {
            throw HttpFailure(HttpFailure::kPlatformFailure, "body cannot start again");
          }
        }
      }
      return bytes;
    }

    ScriptedHttpClient& _client;
    ScriptedResponse _scripted;
    const Interrupt _interrupt;
    std::size_t _placed = 0;
    std::size_t _delivered = 0;
    const std::uint8_t* _next = nullptr;
  };
};

}  // namespace kovo::test
