#pragma once

#include <kovo/kovo.h>

#include <cstdint>
#include <string>

namespace kovo::cli {

// What the program asks of an engine.
struct EngineOptions {
  std::uint32_t connections = 16;
  std::uint64_t chunkSize = 2U << 20;
  std::uint64_t uploadBytesPerSecond = 0;    // 0: no limit
  std::uint64_t downloadBytesPerSecond = 0;  // 0: no limit
  // The number of connections follows the measured throughput instead of standing still.
  bool adaptive = false;
  // Transfers take turns at the connections instead of the first one taking all it can use.
  bool inTurn = false;
  bool rangeCache = false;
  bool chunkUploads = false;
  // Least milliseconds between two progress reports; 0: none.
  std::uint32_t progressInterval = 0;
  std::string proxyUser;  // empty: no credentials for the proxy
  std::string proxyPassword;
};

// Owns one engine whose callbacks lead to Transfer objects.
class Engine {
 public:
  // Throws Failure when the engine cannot be made.
  explicit Engine(const EngineOptions& options);
  Engine(const Engine&) = delete;
  Engine& operator=(const Engine&) = delete;
  ~Engine();

  kovo_instance handle() const { return _instance; }

 private:
  kovo_instance _instance = nullptr;
};

}  // namespace kovo::cli
