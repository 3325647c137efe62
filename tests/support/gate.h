#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>

namespace kovo::test {

/** Holds up whoever waits until it is opened, once and for all. */
class Gate {
 public:
  void open() {
    {
      const std::lock_guard lock(_mutex);
      _open = true;
    }
    _opened.notify_all();
  }
  bool isOpen() const {
    const std::lock_guard lock(_mutex);
    return _open;
  }
  /** Returns whether the gate is open after at most limit. */
  bool waitFor(std::chrono::milliseconds limit) const {
    std::unique_lock lock(_mutex);
    return _opened.wait_for(lock, limit, [this] { return _open; });
  }

 private:
  mutable std::mutex _mutex;
  mutable std::condition_variable _opened;
  bool _open = false; /* guarded by _mutex */
};

}  // namespace kovo::test
