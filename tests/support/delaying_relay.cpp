#include "support/delaying_relay.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <deque>
#include <list>
#include <random>
#include <vector>

namespace kovo::test {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::microseconds;

constexpr size_t kBlock = 128 * 1024;
/* On its way per direction beyond what delay x rate asks for. */
constexpr size_t kSlack = 512 * 1024;
/* A late wake-up is made up for by at most this much. */
constexpr microseconds kCatchUp{5000};

struct Block {
  Clock::time_point due;
  std::vector<char> data;
  size_t size = 0; /* of data, what was received */
  size_t sent = 0;
};

/* One direction of one connection. */
struct Pipe {
  int from = -1;
  int to = -1;
  std::deque<Block> onItsWay;
  size_t bytes = 0;
  Clock::time_point notBefore{}; /* a handshake's delay */
  Clock::time_point nextSend{};  /* what the rate allows */
  bool ended = false;            /* from has no more */
  bool shut = false;             /* to has been told */
  bool readable = true;          /* from may have more */
  bool blocked = false;          /* to takes nothing now */
  Pipe* back = nullptr;          /* the other direction */
};

struct Link {
  UniqueFd client;
  UniqueFd server;
  Pipe up;
  Pipe down;
  bool dead = false;
  uint64_t breaksAt = UINT64_MAX; /* bytes down */
};

void setNonBlocking(int fd) {
  ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) | O_NONBLOCK);
  const int on = 1;
  ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

}  // namespace

/** Everything the relay's thread owns. */
class DelayingRelay::Loop {
 public:
  Loop(int listener, int stop, uint16_t targetPort, const RelayOptions& options,
       std::atomic<size_t>& opened, std::atomic<uint64_t>& bytesDown)
      : _listener(listener),
        _stop(stop),
        _targetPort(targetPort),
        _options(options),
        _opened(opened),
        _bytesDown(bytesDown),
        _epoll(::epoll_create1(EPOLL_CLOEXEC)),
        _most(mostOnItsWay(options)) {
    watch(_listener, EPOLLIN, nullptr);
    watch(_stop, EPOLLIN, &_stop);
  }

  void run() {
    epoll_event events[64];
    for (;;) {
      const int count = ::epoll_wait(_epoll.get(), events, 64, timeout());
      for (int i = 0; i < count; ++i) {
        if (events[i].data.ptr == &_stop) return;
        if (events[i].data.ptr == nullptr) {
          accept();
        } else {
          Pipe& pipe = *static_cast<Pipe*>(events[i].data.ptr);
          if ((events[i].events & ~static_cast<uint32_t>(EPOLLOUT)) != 0) pipe.readable = true;
          if ((events[i].events & ~static_cast<uint32_t>(EPOLLIN)) != 0) pipe.back->blocked = false;
        }
      }
      for (Link& link : _links) {
        move(link, link.up);
        move(link, link.down);
      }
      _links.remove_if(
          [](const Link& link) { return link.dead || (link.up.shut && link.down.shut); });
    }
  }

 private:
  static size_t mostOnItsWay(const RelayOptions& options) {
    const uint64_t delay = static_cast<uint64_t>(options.delay.count());
    if (options.connectionRate == 0) return delay == 0 ? kSlack : 64 * 1024 * 1024;
    return static_cast<size_t>(options.connectionRate * delay / 1'000'000) + kSlack;
  }

  void watch(int fd, uint32_t events, void* mark) const {
    epoll_event event{};
    event.events = events;
    event.data.ptr = mark;
    ::epoll_ctl(_epoll.get(), EPOLL_CTL_ADD, fd, &event);
  }

  void accept() {
    UniqueFd client(::accept4(_listener, nullptr, nullptr, SOCK_CLOEXEC));
    if (!client) return;
    ++_opened;
    UniqueFd server = connectToLoopback(_targetPort);
    if (!server) return;
    Link& link = _links.emplace_back();
    link.client = std::move(client);
    link.server = std::move(server);
    setNonBlocking(link.client.get());
    setNonBlocking(link.server.get());
    link.up.from = link.down.to = link.client.get();
    link.up.to = link.down.from = link.server.get();
    link.up.back = &link.down;
    link.down.back = &link.up;
    if (_options.dropAfter != 0) {
      std::uniform_int_distribution<uint64_t> around(_options.dropAfter / 2,
                                                     _options.dropAfter + _options.dropAfter / 2);
      link.breaksAt = around(_random);
    }
    if (_options.delaysHandshake) link.up.notBefore = Clock::now() + 2 * _options.delay;
    watch(link.client.get(), EPOLLIN | EPOLLOUT | EPOLLET, &link.up);
    watch(link.server.get(), EPOLLIN | EPOLLOUT | EPOLLET, &link.down);
  }

  int timeout() const {
    Clock::time_point next = Clock::time_point::max();
    for (const Link& link : _links) {
      for (const Pipe* pipe : {&link.up, &link.down}) {
        if (pipe->blocked || pipe->onItsWay.empty()) continue;
        next = std::min(next, std::max(pipe->onItsWay.front().due, pipe->nextSend));
      }
    }
    if (next == Clock::time_point::max()) return -1;
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(next - Clock::now()).count();
    return static_cast<int>(std::max<long>(left, 0));
  }

  void move(Link& link, Pipe& pipe) {
    if (link.dead) return;
    bool moved = true;
    while (moved && !link.dead) {
      moved = receive(link, pipe);
      moved = forward(link, pipe) || moved;
    }
    if (pipe.ended && !pipe.shut && pipe.onItsWay.empty()) {
      ::shutdown(pipe.to, SHUT_WR);
      pipe.shut = true;
    }
  }

  bool receive(Link& link, Pipe& pipe) {
    if (pipe.ended || !pipe.readable || pipe.bytes >= _most) return false;
    Block block;
    block.data = takeBuffer();
    const ssize_t count = ::recv(pipe.from, block.data.data(), block.data.size(), 0);
    if (count <= 0) {
      _spare.push_back(std::move(block.data));
      if (count == 0) {
        pipe.ended = true;
      } else if (errno == EAGAIN) {
        pipe.readable = false;
      } else if (errno != EINTR) {
        link.dead = true;
      }
      return false;
    }
    block.size = static_cast<size_t>(count);
    block.due = std::max(Clock::now(), pipe.notBefore) + _options.delay;
    pipe.bytes += block.size;
    pipe.onItsWay.push_back(std::move(block));
    return true;
  }

  bool forward(Link& link, Pipe& pipe) {
    bool any = false;
    while (!pipe.blocked && !pipe.onItsWay.empty()) {
      const Clock::time_point now = Clock::now();
      Block& block = pipe.onItsWay.front();
      if (block.due > now || pipe.nextSend > now) break;
      size_t most = block.size - block.sent;
      if (_options.connectionRate != 0) {
        most = std::min<size_t>(most, std::max<uint64_t>(_options.connectionRate / 500, 1));
      }
      const ssize_t count = ::send(pipe.to, block.data.data() + block.sent, most, MSG_NOSIGNAL);
      if (count < 0) {
        if (errno == EAGAIN || errno == EINTR) {
          pipe.blocked = true;
        } else {
          link.dead = true;
        }
        break;
      }
      any = true;
      if (&pipe == &link.down) {
        _bytesDown += static_cast<uint64_t>(count);
        if (link.breaksAt < static_cast<uint64_t>(count)) {
          link.dead = true;
          break;
        }
        link.breaksAt -= static_cast<uint64_t>(count);
      }
      block.sent += static_cast<size_t>(count);
      pipe.bytes -= static_cast<size_t>(count);
      if (_options.connectionRate != 0) {
        pipe.nextSend = std::max(pipe.nextSend, now - kCatchUp) +
                        std::chrono::nanoseconds(static_cast<uint64_t>(count) * 1'000'000'000 /
                                                 _options.connectionRate);
      }
      if (block.sent == block.size) {
        _spare.push_back(std::move(block.data));
        pipe.onItsWay.pop_front();
      }
    }
    return any;
  }

  std::vector<char> takeBuffer() {
    if (_spare.empty()) return std::vector<char>(kBlock);
    std::vector<char> buffer = std::move(_spare.back());
    _spare.pop_back();
    return buffer;
  }

  const int _listener;
  int _stop;
  const uint16_t _targetPort;
  const RelayOptions _options;
  std::atomic<size_t>& _opened;
  std::atomic<uint64_t>& _bytesDown;
  std::mt19937_64 _random{1};
  UniqueFd _epoll;
  const size_t _most;
  std::list<Link> _links;
  std::vector<std::vector<char>> _spare;
};

DelayingRelay::DelayingRelay(uint16_t targetPort, const RelayOptions& options, uint16_t port)
    : _listener(listenOnLoopback(port)),
      _port(localPort(_listener)),
      _stop(::eventfd(0, EFD_CLOEXEC)),
      _loop(std::make_unique<Loop>(_listener.get(), _stop.get(), targetPort, options,
                                   _connectionsOpened, _bytesDown)),
      _thread([this] { _loop->run(); }) {}

DelayingRelay::~DelayingRelay() {
  const uint64_t one = 1;
  [[maybe_unused]] const ssize_t written = ::write(_stop.get(), &one, sizeof one);
  _thread.join();
}

std::string DelayingRelay::url(const std::string& path) const {
  return "http://127.0.0.1:" + std::to_string(_port) + path;
}

}  // namespace kovo::test
