#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

#include "support/gate.h"
#include "support/origin_connection.h"
#include "support/origin_request.h"
#include "support/resource.h"

namespace kovo::test {

enum class Cut { kClose, kReset };

/** A place in an answer: inside its head, or before the first, the middle or the last byte of a
 * body with a Content-Length. */
enum class Moment { kHead, kFirstByte, kMiddle, kLastByte };

/**
 * What a handler of a FaultOrigin answers with. Every member may end the handler by throwing
 * ConnectionOver (the client went away, a cut was reached, the origin stops); handlers let it
 * pass. Nothing is added behind the handler's back: what it sends is what goes over the wire.
 */
class Responder {
 public:
  Responder(OriginConnection& connection, const OriginRequest& request, const Gate& release)
      : _connection(connection), _request(request), _release(release) {}

  /** A whole answer with Content-Length. To a HEAD the body is left out. */
  void respond(int status, const Headers& headers = {}, std::string_view body = {});
  /** Status line and headers only. */
  void head(int status, const Headers& headers);
  /** Bytes as they are: a body, or any garbage. */
  void raw(std::string_view bytes) { _connection.send(bytes); }
  /** A part of a resource as body. */
  void range(const Resource& resource, uint64_t offset, uint64_t length) {
    _connection.sendResource(resource, offset, length);
  }
  /** One piece of a body under "Transfer-Encoding: chunked"; endChunks() ends it. */
  void chunk(std::string_view bytes);
  void endChunks() { raw("0\r\n\r\n"); }
  /** Header lines until the client has had enough. */
  [[noreturn]] void endlessHeaders();

  /** The connection ends once so many more bytes have gone out. */
  void cutAfter(uint64_t bytes, Cut cut = Cut::kClose) {
    _connection.cutAfter(bytes, cut == Cut::kReset);
  }
  /** Something that happens while the next answer goes out, which must have that byte. */
  void during(Moment moment, std::function<void()> action) {
    _moment = moment;
    _action = std::move(action);
  }
  /** Ends the connection now. */
  [[noreturn]] void close();
  [[noreturn]] void reset();
  /** The connection ends after this answer. */
  void closeAfterwards() { _keepAlive = false; }
  bool keepsAlive() const { return _keepAlive; }

  /** Sends nothing until FaultOrigin::release(). */
  void stall() { _connection.waitFor(_release); }
  void stallUntil(const Gate& gate) { _connection.waitFor(gate); }
  void stallFor(std::chrono::milliseconds time) { _connection.waitFor(time); }
  /** So many more bytes go out at this rate, in bytes per second. */
  void drip(uint64_t bytes, uint64_t rate);
  /** Bytes per second of this connection from now on; 0: unlimited. */
  void setRate(uint64_t bytesPerSecond) { _connection.setRate(bytesPerSecond); }

  /** The request's body, for an origin that does not read bodies by itself. */
  std::string readBody() { return _connection.readBody(_request); }

 private:
  OriginConnection& _connection;
  const OriginRequest& _request;
  const Gate& _release;
  bool _keepAlive = true;
  Moment _moment = Moment::kHead;
  std::function<void()> _action; /* due in the next answer */
};

/** The reason phrase of a status; "Unknown" for one without a name. */
std::string_view reasonOf(int status);

}  // namespace kovo::test
