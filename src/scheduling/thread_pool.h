#pragma once

#include <boost/noncopyable.hpp>

namespace kovo {

// Runs the scheduler's worker callback on threads of its own. Thread-safe.
class ThreadPool : boost::noncopyable {
 public:
  // Waits for running workers; queued runs never execute. Not from a pool thread.
  virtual ~ThreadPool() = default;
  // Queues one run of the worker callback.
  virtual void startWorker() = 0;
  // A hint that work has arrived.
  virtual void wake() = 0;
};

}  // namespace kovo
