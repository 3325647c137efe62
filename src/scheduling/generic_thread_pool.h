#pragma once

#include <atomic>
#include <boost/noncopyable.hpp>
#include <cstddef>
#include <deque>
#include <future>
#include <memory>
#include <thread>
#include <vector>

#include "core/lock.h"

namespace kovo {

// A fixed set of threads that take tasks from a first-in first-out queue.
class GenericThreadPool : boost::noncopyable {
 public:
  class IThreadTask {
   public:
    virtual ~IThreadTask() = default;
    virtual void execute() = 0;
  };

  class ThreadTask : public IThreadTask {
   public:
    explicit ThreadTask(std::packaged_task<void()> task) : _task(std::move(task)) {}
    void execute() override { _task(); }

   private:
    std::packaged_task<void()> _task;
  };

  // Throws std::system_error when a thread cannot be started.
  explicit GenericThreadPool(std::size_t threadCount);
  ~GenericThreadPool();

  void push(std::unique_ptr<IThreadTask> task);
  // Waits for running tasks; queued ones are destroyed without running. Not from a pool thread.
  void destroy();

 private:
  class TaskQueue : boost::noncopyable {
   public:
    void push(std::unique_ptr<IThreadTask> task);
    // Waits for a task; false once the queue is invalid.
    bool waitPop(std::unique_ptr<IThreadTask>& task);
    void invalidate();

   private:
    std::atomic<bool> _valid{true};
    RecursiveLock _mutex;
    std::deque<std::unique_ptr<IThreadTask>> _tasks KOVO_GUARDED_BY(_mutex);
    ConditionVariable _condition;
  };

  void workerLoop();

  std::atomic<bool> _done{false};
  TaskQueue _tasks;
  std::vector<std::thread> _threads;
};

}  // namespace kovo
