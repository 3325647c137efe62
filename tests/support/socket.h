#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>

namespace kovo::test {

/** Owns one descriptor. */
class UniqueFd {
 public:
  UniqueFd() = default;
  explicit UniqueFd(int fd) : _fd(fd) {}
  UniqueFd(UniqueFd&& other) noexcept : _fd(std::exchange(other._fd, -1)) {}
  UniqueFd& operator=(UniqueFd&& other) noexcept;
  ~UniqueFd() { close(); }

  int get() const { return _fd; }
  explicit operator bool() const { return _fd >= 0; }
  void close();

 private:
  int _fd = -1;
};

/** A socket listening on 127.0.0.1; port 0 takes a free one. Throws when it cannot. */
UniqueFd listenOnLoopback(uint16_t port = 0);
uint16_t localPort(const UniqueFd& socket);

/** Connects to 127.0.0.1, blocking; an empty handle when nobody listens. */
UniqueFd connectToLoopback(uint16_t port);

/** A port nobody listens on now. */
uint16_t freePort();

/** Sends text and reads until the peer closes (or 10 seconds pass without a byte). */
std::string exchangeOnLoopback(uint16_t port, std::string_view text);

}  // namespace kovo::test
