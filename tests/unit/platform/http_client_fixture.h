#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "platform/http_client.h"

namespace kovo::test {

/** A body out of a string that can be told to fail. */
class StringBody : public HttpRequestBody {
 public:
  explicit StringBody(std::string text) : _text(std::move(text)) {}

  std::uint64_t length() const override { return _text.size(); }
  bool read(std::uint8_t* buffer, std::size_t capacity, std::size_t& bytesRead) override {
    bytesRead = std::min(capacity, _text.size() - _position);
    if (_position + bytesRead > failsBehind) {
      return false;
    }
    std::memcpy(buffer, _text.data() + _position, bytesRead);
    _position += bytesRead;
    return true;
  }
  bool rewind() override {
    _position = 0;
    return canRewind;
  }

  std::size_t failsBehind = SIZE_MAX;
  bool canRewind = true;

 private:
  const std::string _text;
  std::size_t _position = 0;
};

/** How an exchange went: the head, the body as far as it came, and the failure if any. */
struct Fetched {
  HttpResponseHead head;
  std::string body;
  kovo_error failure = KOVO_ERROR_NONE;
  bool cancelled = false;
  std::string text;
};

/** Reads the rest of a body the way a block-wise reader does: into a block of its own, count bytes
 * at a time. */
inline void readBody(HttpExchange& exchange, std::string& body, std::size_t count,
                     std::size_t block) {
  std::vector<std::uint8_t> buffer(block);
  std::size_t have = 0;
  while (true) {
    const std::size_t want = std::min(count, block - have);
    const std::size_t length = exchange.read(buffer.data() + have, want, block - have);
    EXPECT_LE(length, want);
    body.append(reinterpret_cast<const char*>(buffer.data()) + have, length);
    have = (have + length) % block;
    if (length == 0) {
      return;
    }
  }
}

inline Fetched fetch(const HttpRequestMessage& message, Interrupt interrupt = nullptr,
                     std::size_t count = 32768, std::size_t block = 1024 * 1024) {
  Fetched result;
  const auto exchange = HttpClient::system().createExchange(std::move(interrupt));
  try {
    result.head = exchange->send(message);
    if (message.verb != "HEAD") {
      readBody(*exchange, result.body, count, block);
    }
  } catch (const HttpFailure& failure) {
    result.failure = failure.code;
    result.text = failure.what();
  } catch (const HttpCancelled& cancelled) {
    result.cancelled = true;
    result.text = cancelled.what();
  }
  return result;
}

inline HttpRequestMessage request(const std::string& verb, const std::string& url,
                                  HeaderList headers = {}) {
  HttpRequestMessage message;
  message.verb = verb;
  message.url = url;
  message.headers = std::move(headers);
  message.timeoutSeconds = 20;
  return message;
}

inline Fetched get(const std::string& url) {
  return fetch(request("GET", url));
}

inline std::string headerOf(const HttpResponseHead& head, const std::string& name) {
  for (const auto& [key, value] : head.headers) {
    if (key == name) {
      return value;
    }
  }
  return "(none)";
}

/** Holds the pool of connections open for one test. */
class HttpClientTest : public testing::Test {
 protected:
  HttpClientTest() { HttpClient::retain(); }
  ~HttpClientTest() override { HttpClient::release(); }
};

}  // namespace kovo::test
