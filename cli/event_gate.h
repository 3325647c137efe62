#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>

namespace kovo::cli {

// Where the main thread waits while callbacks and signals happen on other threads.
class EventGate {
 public:
  void notify() {
    {
      const std::lock_guard<std::mutex> hold(_mutex);
      _raised = true;
    }
    _changed.notify_all();
  }

  // Returns when notify was called since the last wait, or when the time is over.
  void waitFor(std::chrono::milliseconds longest) {
    std::unique_lock<std::mutex> hold(_mutex);
    _changed.wait_for(hold, longest, [this] { return _raised; });
    _raised = false;
  }

 private:
  std::mutex _mutex;
  std::condition_variable _changed;
  bool _raised = false;
};

}  // namespace kovo::cli
