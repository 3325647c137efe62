#include "support/origin_connection.h"

#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <charconv>
#include <utility>
#include <vector>

#include "support/resource.h"

namespace kovo::test {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

/* Longest wait that does not look whether the client left or the origin stops. */
constexpr milliseconds kLook{20};
constexpr size_t kMostHeaderBytes = 1024 * 1024;
/* Under a rate, one slice per so much time: short enough to look like a slow line. */
constexpr milliseconds kSlice{10};

std::string_view trim(std::string_view text) {
  while (!text.empty() && (text.front() == ' ' || text.front() == '\t')) text.remove_prefix(1);
  while (!text.empty() && (text.back() == ' ' || text.back() == '\t')) text.remove_suffix(1);
  return text;
}

std::optional<OriginRequest> parseHead(std::string_view head) {
  OriginRequest request;
  const size_t lineEnd = head.find("\r\n");
  const std::string_view line = head.substr(0, lineEnd);
  const size_t first = line.find(' ');
  const size_t second = line.find(' ', first + 1);
  if (first == std::string_view::npos || second == std::string_view::npos) return std::nullopt;
  request.verb = line.substr(0, first);
  request.target = line.substr(first + 1, second - first - 1);
  const size_t mark = request.target.find('?');
  request.path = request.target.substr(0, mark);
  if (mark != std::string::npos) request.query = request.target.substr(mark + 1);
  for (size_t at = lineEnd + 2; at < head.size();) {
    const size_t end = std::min(head.find("\r\n", at), head.size());
    const std::string_view field = head.substr(at, end - at);
    const size_t colon = field.find(':');
    if (colon != std::string_view::npos) {
      request.headers.emplace_back(field.substr(0, colon), trim(field.substr(colon + 1)));
    }
    at = end + 2;
  }
  return request;
}

}  // namespace

OriginConnection::OriginConnection(UniqueFd socket, size_t number,
                                   const std::atomic<bool>& stopping,
                                   std::atomic<uint64_t>& bytesSent)
    : _number(number), _stopping(stopping), _bytesSent(bytesSent), _socket(std::move(socket)) {
  /* A stopped reader of the other side must not block this thread past the look-out interval. */
  const timeval limit{0, std::chrono::microseconds(kLook).count()};
  ::setsockopt(_socket.get(), SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
  ::setsockopt(_socket.get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
}

bool OriginConnection::gone() const {
  if (_stopping.load()) return true;
  pollfd event{_socket.get(), POLLRDHUP, 0};
  return ::poll(&event, 1, 0) > 0 && (event.revents & (POLLRDHUP | POLLHUP | POLLERR)) != 0;
}

bool OriginConnection::readMore() {
  char buffer[65536];
  while (_socket && !_stopping.load()) {
    const ssize_t count = ::recv(_socket.get(), buffer, sizeof buffer, 0);
    if (count > 0) {
      _received.append(buffer, static_cast<size_t>(count));
      return true;
    }
    if (count == 0 || (errno != EAGAIN && errno != EINTR)) return false;
  }
  return false;
}

std::optional<OriginRequest> OriginConnection::readRequest(bool withBody) {
  constexpr std::string_view kEnd = "\r\n\r\n";
  size_t end = 0;
  while ((end = _received.find(kEnd)) == std::string::npos) {
    if (_received.size() > kMostHeaderBytes || !readMore()) return std::nullopt;
  }
  std::optional<OriginRequest> request = parseHead(std::string_view(_received).substr(0, end));
  _received.erase(0, end + kEnd.size());
  if (!request) return std::nullopt;
  request->connection = _number;
  request->onConnection = _requestsRead++;
  if (withBody) request->body = readBody(*request);
  return request;
}

std::string OriginConnection::readBody(const OriginRequest& request) {
  std::string body;
  if (request.header("Expect")) send("HTTP/1.1 100 Continue\r\n\r\n");
  const auto take = [this](size_t count) {
    while (_received.size() < count) {
      if (!readMore()) throw ConnectionOver();
    }
    std::string taken = _received.substr(0, count);
    _received.erase(0, count);
    return taken;
  };
  if (const std::optional<std::string> length = request.header("Content-Length")) {
    size_t count = 0;
    std::from_chars(length->data(), length->data() + length->size(), count);
    body.reserve(count);
    while (body.size() < count) {
      if (_received.empty() && !readMore()) throw ConnectionOver();
      body += take(std::min(_received.size(), count - body.size()));
    }
  } else if (request.header("Transfer-Encoding")) {
    for (;;) {
      size_t lineEnd = 0;
      while ((lineEnd = _received.find("\r\n")) == std::string::npos) {
        if (!readMore()) throw ConnectionOver();
      }
      size_t count = 0;
      std::from_chars(_received.data(), _received.data() + lineEnd, count, 16);
      take(lineEnd + 2);
      body += take(count);
      take(2);
      if (count == 0) break;
    }
  }
  return body;
}

void OriginConnection::send(std::string_view bytes) {
  while (!bytes.empty()) {
    size_t count = bytes.size();
    const uint64_t rate = _rate; /* an action may change it for what follows */
    if (rate != 0) {
      count = std::clamp<uint64_t>(rate * static_cast<uint64_t>(kSlice.count()) / 1000, 1, count);
    }
    if (_action) count = std::min<uint64_t>(count, _bytesToAction);
    sendAtOnce(bytes.substr(0, count));
    bytes.remove_prefix(count);
    if (_action && (_bytesToAction -= count) == 0) std::exchange(_action, nullptr)();
    if (rate != 0) {
      const auto now = steady_clock::now();
      /* A late wake-up is made up for, a pause of the client is not. */
      _nextSend = std::max(_nextSend, now - 5 * kSlice) +
                  std::chrono::nanoseconds(count * 1'000'000'000 / rate);
      if (_nextSend > now) {
        waitFor(std::chrono::ceil<milliseconds>(_nextSend - now));
      }
    }
  }
}

void OriginConnection::sendAtOnce(std::string_view bytes) {
  while (!bytes.empty()) {
    if (_stopping.load() || !_socket) throw ConnectionOver();
    const ssize_t count = ::send(_socket.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (count > 0) {
      bytes.remove_prefix(static_cast<size_t>(count));
      _bytesSent += static_cast<uint64_t>(count);
    } else if (count == 0 || (errno != EAGAIN && errno != EINTR)) {
      throw ConnectionOver();
    }
  }
}

void OriginConnection::sendResource(const Resource& resource, uint64_t offset, uint64_t length) {
  std::vector<uint8_t> piece(std::min<uint64_t>(length, 256 * 1024));
  for (uint64_t done = 0; done < length;) {
    const size_t count = std::min<uint64_t>(piece.size(), length - done);
    resource.fill(offset + done, {piece.data(), count});
    send({reinterpret_cast<const char*>(piece.data()), count});
    done += count;
  }
}

void OriginConnection::afterBytes(uint64_t bytes, std::function<void()> action) {
  _action = std::move(action);
  _bytesToAction = bytes;
}

void OriginConnection::cutAfter(uint64_t bytes, bool withReset) {
  afterBytes(bytes, [this, withReset] {
    withReset ? reset() : close();
    throw ConnectionOver();
  });
}

void OriginConnection::setRate(uint64_t bytesPerSecond) {
  _rate = bytesPerSecond;
}

void OriginConnection::waitFor(milliseconds time) {
  const auto end = steady_clock::now() + time;
  for (auto now = steady_clock::now(); now < end; now = steady_clock::now()) {
    if (!_socket || gone()) throw ConnectionOver();
    const int left = static_cast<int>(
        std::clamp<long>(std::chrono::ceil<milliseconds>(end - now).count(), 0, kLook.count()));
    pollfd event{_socket.get(), POLLRDHUP, 0};
    ::poll(&event, 1, left);
  }
}

void OriginConnection::waitFor(const Gate& gate) {
  while (!gate.waitFor(kLook)) {
    if (!_socket || gone()) throw ConnectionOver();
  }
}

void OriginConnection::close() {
  const std::lock_guard lock(_socketMutex);
  if (!_socket) return;
  /* Unread input would turn the close into a reset and could lose bytes already sent. */
  ::shutdown(_socket.get(), SHUT_WR);
  char dropped[4096];
  const auto end = steady_clock::now() + milliseconds(200);
  while (!_stopping.load() && steady_clock::now() < end) {
    const ssize_t count = ::recv(_socket.get(), dropped, sizeof dropped, 0);
    if (count == 0 || (count < 0 && errno != EAGAIN && errno != EINTR)) break;
  }
  _socket.close();
}

void OriginConnection::reset() {
  const std::lock_guard lock(_socketMutex);
  if (!_socket) return;
  const linger atOnce{1, 0};
  ::setsockopt(_socket.get(), SOL_SOCKET, SO_LINGER, &atOnce, sizeof atOnce);
  _socket.close();
}

void OriginConnection::interrupt() {
  const std::lock_guard lock(_socketMutex);
  if (_socket) ::shutdown(_socket.get(), SHUT_RDWR);
}

}  // namespace kovo::test
