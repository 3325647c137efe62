#include "support/proxy.h"

#include <filesystem>
#include <stdexcept>

#include "support/resource.h"
#include "support/socket.h"
#include "support/wait_until.h"

namespace kovo::test {

Proxy::Proxy(const std::string& user, const std::string& password) : _folder("kovo-proxy") {
  for (int attempt = 0; attempt < 5; ++attempt) {
    if (start(user, password)) return;
  }
  throw std::runtime_error("tinyproxy does not start: " + log());
}

bool Proxy::start(const std::string& user, const std::string& password) {
  _port = freePort();
  std::string text = "Port " + std::to_string(_port) +
                     "\nListen 127.0.0.1\nTimeout 60\nMaxClients 100\nAllow 127.0.0.1\n"
                     "LogLevel Connect\nLogFile \"" +
                     _folder.file("proxy.log") + "\"\nPidFile \"" + _folder.file("proxy.pid") +
                     "\"\n";
  if (!user.empty()) text += "BasicAuth " + user + ' ' + password + '\n';
  writeFile(_folder.file("proxy.conf"), text);
  _process = std::make_unique<ChildProcess>(
      std::vector<std::string>{"tinyproxy", "-d", "-c", _folder.file("proxy.conf")},
      _folder.file("proxy.out"));
  bool answered = false;
  waitUntil(
      [this, &answered] {
        answered = static_cast<bool>(connectToLoopback(_port));
        return answered || !_process->running();
      },
      std::chrono::seconds(5));
  return answered && _process->running();
}

std::string Proxy::url() const {
  return "http://127.0.0.1:" + std::to_string(_port);
}

std::string Proxy::log() const {
  const std::string path = _folder.file("proxy.log");
  return std::filesystem::exists(path) ? readFile(path) : std::string();
}

size_t Proxy::requestCount() const {
  const std::string text = log();
  size_t count = 0;
  for (size_t at = text.find(" Request ("); at != std::string::npos;
       at = text.find(" Request (", at + 1)) {
    ++count;
  }
  return count;
}

}  // namespace kovo::test
