#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "support/child_process.h"
#include "support/temp_dir.h"

namespace kovo::test {

/** A storage server from an npm package, on a free port of 127.0.0.1, in a folder of its own. */
class NodeServer {
 public:
  /**
   * script is the path inside node_modules; arguments receives the port and the data folder. Throws
   * when the server does not come up.
   */
  NodeServer(
      const std::string& script,
      const std::function<std::vector<std::string>(uint16_t, const std::string&)>& arguments);

  /** Whether the packages are there (npm ci in tests/support/node). */
  static bool isInstalled();

  std::string url(const std::string& path) const {
    return "http://127.0.0.1:" + std::to_string(_port) + path;
  }

 private:
  const TempDir _folder;
  uint16_t _port = 0;
  std::unique_ptr<ChildProcess> _process;
};

}  // namespace kovo::test
