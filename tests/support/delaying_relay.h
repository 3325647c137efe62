#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <thread>

#include "support/socket.h"

namespace kovo::test {

struct RelayOptions {
  /* How long every byte is on its way, in each direction: half a round trip. */
  std::chrono::microseconds delay{0};
  /* Bytes per second each connection gets in each direction; 0: unlimited. */
  uint64_t connectionRate = 0;
  /* Connections break when they have carried about this many bytes down (half to one and a half
   * times as many); 0: never. */
  uint64_t dropAfter = 0;
  /* A client's first bytes also wait for the round trip a TCP handshake would have taken. */
  bool delaysHandshake = true;
};

/**
 * A line between clients and a server on 127.0.0.1 with a round-trip time and a rate per
 * connection, which the server itself need not know. One thread carries all connections; what is
 * on its way is bounded by delay x rate per connection.
 */
class DelayingRelay {
 public:
  /** port 0: a free one. */
  DelayingRelay(uint16_t targetPort, const RelayOptions& options, uint16_t port = 0);
  ~DelayingRelay();
  DelayingRelay(const DelayingRelay&) = delete;
  DelayingRelay& operator=(const DelayingRelay&) = delete;

  uint16_t port() const { return _port; }
  std::string url(const std::string& path) const;
  size_t connectionsOpened() const { return _connectionsOpened; }
  /** Bytes passed on to clients. */
  uint64_t bytesDown() const { return _bytesDown; }

 private:
  class Loop;

  UniqueFd _listener;
  const uint16_t _port;
  UniqueFd _stop; /* an eventfd */
  std::atomic<size_t> _connectionsOpened{0};
  std::atomic<uint64_t> _bytesDown{0};
  std::unique_ptr<Loop> _loop;
  std::thread _thread;
};

}  // namespace kovo::test
