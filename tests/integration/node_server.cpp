#include "integration/node_server.h"

#include <filesystem>
#include <stdexcept>

#include "support/resource.h"
#include "support/socket.h"
#include "support/wait_until.h"

namespace kovo::test {
namespace {

constexpr int kStartAttempts = 3;
/* Node reads a few thousand files before it serves. */
constexpr std::chrono::milliseconds kStartPatience{60000};

}  // namespace

bool NodeServer::isInstalled() {
  return !findProgram("node").empty() && std::filesystem::exists(KOVO_NODE_MODULES "/s3rver") &&
         std::filesystem::exists(KOVO_NODE_MODULES "/azurite");
}

NodeServer::NodeServer(
    const std::string& script,
    const std::function<std::vector<std::string>(uint16_t, const std::string&)>& arguments)
    : _folder("kovo-node") {
  const std::string data = _folder.file("data");
  std::filesystem::create_directory(data);
  for (int attempt = 0; attempt < kStartAttempts; ++attempt) {
    _port = freePort();
    std::vector<std::string> command = {"node", std::string(KOVO_NODE_MODULES "/") + script};
    for (const std::string& argument : arguments(_port, data)) {
      command.push_back(argument);
    }
    _process = std::make_unique<ChildProcess>(command, _folder.file("output"));
    if (waitUntil([this] { return !_process->running() || connectToLoopback(_port); },
                  kStartPatience) &&
        _process->running()) {
      return;
    }
  }
  throw std::runtime_error(script + " does not start: " + readFile(_folder.file("output")));
}

}  // namespace kovo::test
