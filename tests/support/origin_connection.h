#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "support/gate.h"
#include "support/origin_request.h"
#include "support/socket.h"

namespace kovo::test {

/** Thrown inside an origin's handler when its connection is over; the origin catches it. */
struct ConnectionOver {};

/**
 * The server's end of one connection of a FaultOrigin: reads requests, sends bytes at a limited
 * rate. All members but interrupt() belong to the connection's thread.
 */
class OriginConnection {
 public:
  OriginConnection(UniqueFd socket, size_t number, const std::atomic<bool>& stopping,
                   std::atomic<uint64_t>& bytesSent);

  /** Reads the next request; empty when the client closed or sent something unreadable. */
  std::optional<OriginRequest> readRequest(bool withBody);
  /** Reads the body the last request announced, when readRequest left it. */
  std::string readBody(const OriginRequest& request);

  /** Sends everything or throws ConnectionOver. */
  void send(std::string_view bytes);
  void sendResource(const class Resource& resource, uint64_t offset, uint64_t length);

  /** Between the bytes so many from here and the next one, action happens; it replaces another
   * that is still due. */
  void afterBytes(uint64_t bytes, std::function<void()> action);
  /** After so many more bytes the connection ends, gracefully or with a reset. */
  void cutAfter(uint64_t bytes, bool withReset);
  /** Bytes per second over the whole life of the connection; 0: unlimited. */
  void setRate(uint64_t bytesPerSecond);

  /** Waits; throws ConnectionOver when the client goes away or the origin stops meanwhile. */
  void waitFor(std::chrono::milliseconds time);
  void waitFor(const Gate& gate);

  /** Ends the connection: close after what was sent, or a reset. */
  void close();
  void reset();

  /** Any thread: makes every wait of the connection's thread return soon. */
  void interrupt();

  size_t number() const { return _number; }
  uint64_t requestsRead() const { return _requestsRead; }

 private:
  bool readMore();
  bool gone() const;
  void sendAtOnce(std::string_view bytes);

  /* Constant after construction. */
  const size_t _number;
  const std::atomic<bool>& _stopping;
  std::atomic<uint64_t>& _bytesSent;

  /* Guards closing the socket against interrupt(). */
  std::mutex _socketMutex;
  UniqueFd _socket;

  /* Owned by the connection's thread. */
  std::string _received;
  size_t _requestsRead = 0;
  std::function<void()> _action; /* due after _bytesToAction more bytes */
  uint64_t _bytesToAction = 0;
  uint64_t _rate = 0;
  std::chrono::steady_clock::time_point _nextSend{};
};

}  // namespace kovo::test
