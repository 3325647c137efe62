#pragma once

#include <kovo/kovo.h>

#include <cstdint>

namespace kovo::cli {

// What the program asks of an engine.
struct EngineOptions {
  std::uint32_t connections = 16;
  std::uint64_t chunkSize = 2U << 20;
  std::uint64_t uploadBytesPerSecond = 0;    // 0: no limit
  std::uint64_t downloadBytesPerSecond = 0;  // 0: no limit
  // The number of connections follows the measured throughput instead of standing still.
  bool adaptive = false;
  bool rangeCache = false;
  bool chunkUploads = false;
  // Least milliseconds between two progress reports; 0: none.
  std::uint32_t progressInterval = 0;
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
