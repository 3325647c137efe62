#include "support/socket.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

namespace kovo::test {
namespace {

sockaddr_in loopback(uint16_t port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return address;
}

[[noreturn]] void fail(const char* what) {
  throw std::system_error(errno, std::generic_category(), what);
}

}  // namespace

UniqueFd& UniqueFd::operator=(UniqueFd&& other) noexcept {
  if (this != &other) {
    close();
    _fd = std::exchange(other._fd, -1);
  }
  return *this;
}

void UniqueFd::close() {
  if (_fd >= 0) ::close(std::exchange(_fd, -1));
}

UniqueFd listenOnLoopback(uint16_t port) {
  UniqueFd listener(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (!listener) fail("socket");
  const int on = 1;
  ::setsockopt(listener.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  const sockaddr_in address = loopback(port);
  if (::bind(listener.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    fail("bind");
  }
  if (::listen(listener.get(), 1024) != 0) fail("listen");
  return listener;
}

uint16_t localPort(const UniqueFd& socket) {
  sockaddr_in address{};
  socklen_t size = sizeof address;
  if (::getsockname(socket.get(), reinterpret_cast<sockaddr*>(&address), &size) != 0) {
    fail("getsockname");
  }
  return ntohs(address.sin_port);
}

UniqueFd connectToLoopback(uint16_t port) {
  UniqueFd socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (!socket) fail("socket");
  const sockaddr_in address = loopback(port);
  if (::connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    return UniqueFd();
  }
  const int on = 1;
  ::setsockopt(socket.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  return socket;
}

uint16_t freePort() {
  return localPort(listenOnLoopback());
}

std::string exchangeOnLoopback(uint16_t port, std::string_view text) {
  const UniqueFd socket = connectToLoopback(port);
  if (!socket) return {};
  const timeval limit{10, 0};
  ::setsockopt(socket.get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
  if (::send(socket.get(), text.data(), text.size(), MSG_NOSIGNAL) < 0) return {};
  std::string answer;
  char buffer[16384];
  for (;;) {
    const ssize_t count = ::recv(socket.get(), buffer, sizeof buffer, 0);
    if (count <= 0) return answer;
    answer.append(buffer, static_cast<size_t>(count));
  }
}

}  // namespace kovo::test
