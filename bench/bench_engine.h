#pragma once

#include <kovo/kovo.h>

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>

namespace kovo::bench {

struct EngineOptions {
  std::uint32_t connections = 16;
  std::uint64_t chunkSize = 2U << 20;
  std::uint32_t activeTransfers = 4;
  bool rangeCache = false;
  bool adaptive = false;
  bool chunkUploads = false;
  bool insecure = false;
  kovo_server_type serverType = KOVO_SERVER_TYPE_DEFAULT;
};

// An engine whose transfers are counted; one of each process.
class Engine {
 public:
  explicit Engine(const EngineOptions& options);
  Engine(const Engine&) = delete;
  Engine& operator=(const Engine&) = delete;
  ~Engine();

  kovo_instance handle() const { return _instance; }
  // What the start calls take as the transfer's context.
  void* context() { return this; }

  // Counts a transfer whose start call returned result; ends the program when it failed.
  void started(kovo_error result);
  // Waits until at most count transfers are running. False when one failed.
  bool waitUntilAtMost(std::size_t count);

 private:
  class Callbacks;
  void finished(const char* failure);

  const EngineOptions _options;
  kovo_instance _instance = nullptr;
  std::mutex _mutex;
  std::condition_variable _changed;
  std::size_t _running = 0;
  std::ptrdiff_t _awaited = 0;  // at most so many are to be running
  bool _failed = false;
};

// The value of "--name value" among the arguments, or fallback.
const char* argument(int count, char** arguments, const char* name, const char* fallback);
std::uint64_t number(int count, char** arguments, const char* name, std::uint64_t fallback);
bool flag(int count, char** arguments, const char* name);
EngineOptions engineOptions(int count, char** arguments);

}  // namespace kovo::bench
