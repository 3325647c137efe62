#pragma once

#include <atomic>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "support/gate.h"
#include "support/origin_connection.h"
#include "support/origin_request.h"
#include "support/responder.h"
#include "support/socket.h"

namespace kovo::test {

/** Called for every request, on its connection's thread; several may run at once. */
using OriginHandler = std::function<void(const OriginRequest&, Responder&)>;

struct FaultOriginOptions {
  /* Bytes per second each connection gets; 0: unlimited. */
  uint64_t connectionRate = 0;
  /* Connections beyond this number are closed as soon as they come. */
  size_t mostConnections = 512;
  /* When false, handlers that want a request's body ask the responder for it. */
  bool readsBodies = true;
};

/**
 * An HTTP/1.1 origin on a free port of 127.0.0.1 that misbehaves on purpose: a handler scripts
 * every answer down to the byte. Runs from construction to destruction, which ends all connections
 * within a second whatever the clients do.
 */
class FaultOrigin {
 public:
  explicit FaultOrigin(OriginHandler handler, const FaultOriginOptions& options = {});
  ~FaultOrigin();
  FaultOrigin(const FaultOrigin&) = delete;
  FaultOrigin& operator=(const FaultOrigin&) = delete;

  uint16_t port() const { return _port; }
  /** "http://127.0.0.1:port" and path, which starts with '/'. */
  std::string url(std::string_view path = "/") const;

  /** Lets everything go on that waits in Responder::stall(), now and later. */
  void release() { _release.open(); }

  /** New connections are refused from now on; those there are stay. */
  void stopListening();

  /** The requests so far in order of arrival, without their bodies when longer than 64 KiB. */
  std::vector<OriginRequest> requests() const;
  size_t requestCount() const;
  size_t connectionsOpened() const { return _connectionsOpened; }
  uint64_t bytesSent() const { return _bytesSent; }
  /** Most requests that were being answered at the same time. */
  size_t mostAtOnce() const { return _mostAtOnce; }

 private:
  struct Running {
    std::unique_ptr<OriginConnection> connection;
    std::thread thread;
    std::atomic<bool> done{false};
  };

  void acceptLoop();
  void serve(OriginConnection& connection);
  void reapLocked();

  /* Constant after construction. */
  const OriginHandler _handler;
  const FaultOriginOptions _options;
  UniqueFd _listener;
  const uint16_t _port;

  /* Synchronised by themselves. */
  std::atomic<bool> _stopping{false};
  std::atomic<bool> _refusing{false};
  std::atomic<size_t> _connectionsOpened{0};
  std::atomic<uint64_t> _bytesSent{0};
  std::atomic<size_t> _answering{0};
  std::atomic<size_t> _mostAtOnce{0};
  Gate _release;

  mutable std::mutex _mutex;
  std::vector<OriginRequest> _requests; /* guarded by _mutex */
  std::list<Running> _running;          /* guarded by _mutex */

  std::thread _acceptor;
};

}  // namespace kovo::test
