#include "support/responder.h"

#include <algorithm>
#include <charconv>
#include <utility>

namespace kovo::test {

std::string_view reasonOf(int status) {
  switch (status) {
    case 200:
      return "OK";
    case 201:
      return "Created";
    case 204:
      return "No Content";
    case 206:
      return "Partial Content";
    case 301:
      return "Moved Permanently";
    case 302:
      return "Found";
    case 304:
      return "Not Modified";
    case 307:
      return "Temporary Redirect";
    case 308:
      return "Permanent Redirect";
    case 400:
      return "Bad Request";
    case 401:
      return "Unauthorized";
    case 403:
      return "Forbidden";
    case 404:
      return "Not Found";
    case 405:
      return "Method Not Allowed";
    case 408:
      return "Request Timeout";
    case 409:
      return "Conflict";
    case 412:
      return "Precondition Failed";
    case 416:
      return "Range Not Satisfiable";
    case 429:
      return "Too Many Requests";
    case 500:
      return "Internal Server Error";
    case 502:
      return "Bad Gateway";
    case 503:
      return "Service Unavailable";
    case 504:
      return "Gateway Timeout";
    default:
      return "Unknown";
  }
}

void Responder::head(int status, const Headers& headers) {
  std::string text = "HTTP/1.1 " + std::to_string(status) + ' ' + std::string(reasonOf(status));
  text += "\r\n";
  uint64_t length = 0;
  for (const auto& [name, value] : headers) {
    text += name + ": " + value + "\r\n";
    if (name == "Content-Length") {
      std::from_chars(value.data(), value.data() + value.size(), length);
    }
  }
  text += "\r\n";
  if (_action) {
    const uint64_t body = _moment == Moment::kMiddle     ? length / 2
                          : _moment == Moment::kLastByte ? std::max<uint64_t>(length, 1) - 1
                                                         : 0;
    _connection.afterBytes(_moment == Moment::kHead ? text.size() / 2 : text.size() + body,
                           std::exchange(_action, nullptr));
  }
  raw(text);
}

void Responder::respond(int status, const Headers& headers, std::string_view body) {
  Headers all = headers;
  if (status != 204 && status != 304) {
    all.emplace_back("Content-Length", std::to_string(body.size()));
  }
  if (!_keepAlive) all.emplace_back("Connection", "close");
  head(status, all);
  if (_request.verb != "HEAD") raw(body);
}

void Responder::chunk(std::string_view bytes) {
  char size[17];
  const auto end = std::to_chars(size, size + sizeof size, bytes.size(), 16).ptr;
  std::string text(size, end);
  text += "\r\n";
  text += bytes;
  raw(text + "\r\n");
}

void Responder::endlessHeaders() {
  raw("HTTP/1.1 200 OK\r\n");
  const std::string line = "X-Filler: " + std::string(1000, 'x') + "\r\n";
  for (;;) raw(line);
}

void Responder::drip(uint64_t bytes, uint64_t rate) {
  _connection.setRate(rate);
  _connection.afterBytes(bytes, [&connection = _connection] { connection.setRate(0); });
}

void Responder::close() {
  _connection.close();
  throw ConnectionOver();
}

void Responder::reset() {
  _connection.reset();
  throw ConnectionOver();
}

}  // namespace kovo::test
