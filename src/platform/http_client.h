#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>

#include "core/header_list.h"
#include "core/kovo_error.h"
#include "platform/clock.h"

namespace kovo {

// A failure below HTTP. code is KOVO_ERROR_TIMEOUT when the inactivity limit expired, else 112007;
// what() holds the library's own words and the URL's host, never a secret.
class HttpFailure : public std::runtime_error {
 public:
  HttpFailure(kovo_error failureCode, const std::string& message)
      : std::runtime_error(message), code(failureCode) {}
  const kovo_error code;

  static constexpr kovo_error kPlatformFailure = 112007;
};

// The exchange was given up because its interrupt said so.
class HttpCancelled : public std::runtime_error {
 public:
  HttpCancelled() : std::runtime_error("task cancelled") {}
};

// The body of a request, pulled while it is sent; used by one thread.
class HttpRequestBody {
 public:
  virtual ~HttpRequestBody() = default;
  virtual std::uint64_t length() const = 0;
  // Up to capacity bytes; sets bytesRead (0 only at the end). False: the body failed, and the
  // exchange ends with HttpFailure.
  virtual bool read(std::uint8_t* buffer, std::size_t capacity, std::size_t& bytesRead) = 0;
  // Starts again from the first byte (redirects, proxy authentication); false when it cannot.
  virtual bool rewind() = 0;
};

struct HttpRequestMessage {
  std::string verb;
  std::string url;
  // Sent as they are; a name occurs once. The client adds Host, and a User-Agent unless given.
  HeaderList headers;
  // Null: no body, and neither Content-Length nor Transfer-Encoding beyond what headers holds.
  // A body of length 0 sends "Content-Length: 0" and no byte.
  HttpRequestBody* body = nullptr;
  bool validateCertificateChain = true;
  // Empty: none. Answered to the proxy when it asks.
  std::string proxyUsername;
  std::string proxyPassword;
  // Inactivity limit: seconds without progress in resolving, connecting, sending, waiting for the
  // headers or a stalled body. 0: the client's own limit of 120.
  std::uint32_t timeoutSeconds = 0;
};

struct HttpResponseHead {
  std::uint32_t status = 0;
  std::string reason;
  std::string version;  // "None", "Http10", "Http11" or "Http20"
  HeaderList headers;   // as received, in order
};

// One HTTP exchange, pulled by one thread. Destroying it ends it at once; its connection is kept
// for the next exchange with the same host when the response was read to its end.
class HttpExchange {
 public:
  virtual ~HttpExchange() = default;

  // Sends the request and returns when the final response's headers have arrived (redirects
  // followed, interim responses skipped). Call once. Throws HttpFailure or HttpCancelled.
  virtual const HttpResponseHead& send(const HttpRequestMessage& message) = 0;

  // Reads between 1 and count bytes of the body into buffer, or 0 at its end. room (>= count) is
  // how much contiguous space the caller owns at buffer: the exchange may place bytes ahead there,
  // and the next read, which must then ask for the position directly behind the bytes just
  // returned, hands them out without another copy. Throws HttpFailure (also for a body cut short)
  // or HttpCancelled.
  virtual std::size_t read(std::uint8_t* buffer, std::size_t count, std::size_t room) = 0;
};

// Makes exchanges over a process-wide pool of kept-alive connections. Thread-safe.
class HttpClient {
 public:
  virtual ~HttpClient() = default;

  // interrupt is asked from the exchange's own thread, at least every 100 ms while it waits.
  virtual std::unique_ptr<HttpExchange> createExchange(Interrupt interrupt) = 0;

  // The process's client.
  static HttpClient& system();
  // Counts the engines that use the pool; when the last one leaves, idle connections are closed.
  static void retain();
  static void release();
};

}  // namespace kovo
