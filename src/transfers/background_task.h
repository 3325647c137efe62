#pragma once

#include <atomic>
#include <boost/noncopyable.hpp>
#include <functional>
#include <thread>

namespace kovo {

// Work of a transfer that runs beside its requests, on a thread of its own, so that it takes no
// connection away from them. Whoever owns what the task uses stops it first.
class BackgroundTask : boost::noncopyable {
 public:
  ~BackgroundTask() { stop(); }

  // Once in a lifetime. task does not throw; its argument tells whether it is to end early.
  void start(const char* threadName, std::function<void(const std::function<bool()>&)> task);
  // Asks the task to end and waits for it.
  void stop();

 private:
  std::atomic<bool> _stopping{false};
  std::thread _thread;
};

}  // namespace kovo
