#include "support/fault_origin.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>

#include <exception>

namespace kovo::test {
namespace {

constexpr size_t kMostRecordedBody = 64 * 1024;

}  // namespace

FaultOrigin::FaultOrigin(OriginHandler handler, const FaultOriginOptions& options)
    : _handler(std::move(handler)),
      _options(options),
      _listener(listenOnLoopback()),
      _port(localPort(_listener)),
      _acceptor([this] { acceptLoop(); }) {}

FaultOrigin::~FaultOrigin() {
  _stopping = true;
  ::shutdown(_listener.get(), SHUT_RDWR);
  _acceptor.join();
  /* The acceptor is gone: nobody else touches the list. */
  for (Running& running : _running) running.connection->interrupt();
  for (Running& running : _running) running.thread.join();
}

std::string FaultOrigin::url(std::string_view path) const {
  return "http://127.0.0.1:" + std::to_string(_port) + std::string(path);
}

std::vector<OriginRequest> FaultOrigin::requests() const {
  const std::lock_guard lock(_mutex);
  return _requests;
}

size_t FaultOrigin::requestCount() const {
  const std::lock_guard lock(_mutex);
  return _requests.size();
}

void FaultOrigin::stopListening() {
  _refusing = true;
  ::shutdown(_listener.get(), SHUT_RDWR);
}

void FaultOrigin::acceptLoop() {
  while (!_stopping.load() && !_refusing.load()) {
    pollfd event{_listener.get(), POLLIN, 0};
    if (::poll(&event, 1, 100) <= 0) continue;
    UniqueFd socket(::accept4(_listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
    if (!socket) continue;
    const int on = 1;
    ::setsockopt(socket.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    const size_t number = _connectionsOpened++;
    const std::lock_guard lock(_mutex);
    reapLocked();
    if (_running.size() >= _options.mostConnections) continue;
    Running& running = _running.emplace_back();
    running.connection =
        std::make_unique<OriginConnection>(std::move(socket), number, _stopping, _bytesSent);
    running.thread = std::thread([this, &running] {
      serve(*running.connection);
      running.done = true;
    });
  }
}

void FaultOrigin::reapLocked() {
  for (auto it = _running.begin(); it != _running.end();) {
    if (it->done.load()) {
      it->thread.join();
      it = _running.erase(it);
    } else {
      ++it;
    }
  }
}

void FaultOrigin::serve(OriginConnection& connection) {
  struct Answering {
    explicit Answering(FaultOrigin& origin) : _origin(origin) {
      const size_t now = ++_origin._answering;
      size_t most = _origin._mostAtOnce;
      while (now > most && !_origin._mostAtOnce.compare_exchange_weak(most, now)) {
      }
    }
    ~Answering() { --_origin._answering; }
    FaultOrigin& _origin;
  };

  try {
    while (!_stopping.load()) {
      std::optional<OriginRequest> request = connection.readRequest(_options.readsBodies);
      if (!request) break;
      connection.setRate(_options.connectionRate); /* what one answer suffers ends with it */
      {
        const std::lock_guard lock(_mutex);
        request->index = _requests.size();
        OriginRequest& record = _requests.emplace_back(*request);
        if (record.body.size() > kMostRecordedBody) record.body.clear();
      }
      const Answering answering(*this);
      Responder responder(connection, *request, _release);
      _handler(*request, responder);
      if (!responder.keepsAlive()) break;
      const std::optional<std::string> wish = request->header("Connection");
      if (wish && *wish == "close") break;
    }
  } catch (const ConnectionOver&) {
  }
  connection.close();
}

}  // namespace kovo::test
