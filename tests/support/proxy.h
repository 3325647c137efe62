#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "support/child_process.h"
#include "support/temp_dir.h"

namespace kovo::test {

/**
 * A tinyproxy of its own on a free port of 127.0.0.1. With a user name it asks for Basic
 * authentication. Ended by the destructor.
 */
class Proxy {
 public:
  explicit Proxy(const std::string& user = "", const std::string& password = "");

  /** "http://127.0.0.1:port", as the proxy variables take it. */
  std::string url() const;
  uint16_t port() const { return _port; }
  /** Requests it passed on or refused, by its log. */
  size_t requestCount() const;
  std::string log() const;

 private:
  bool start(const std::string& user, const std::string& password);

  TempDir _folder;
  uint16_t _port = 0;
  std::unique_ptr<ChildProcess> _process;
};

}  // namespace kovo::test
