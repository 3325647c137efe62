#include "scheduling/generic_thread_pool.h"

#include <boost/bind/bind.hpp>
#include <utility>

#include "scheduling/library_thread.h"

namespace kovo {

GenericThreadPool::GenericThreadPool(std::size_t threadCount) {
  try {
    _threads.reserve(threadCount);
    for (std::size_t i = 0; i < threadCount; ++i) {
      _threads.push_back(
          startLibraryThread("kovo-worker", boost::bind(&GenericThreadPool::workerLoop, this)));
    }
  } catch (...) {
    destroy();
    throw;
  }
}

GenericThreadPool::~GenericThreadPool() {
  destroy();
}

void GenericThreadPool::push(std::unique_ptr<IThreadTask> task) {
  _tasks.push(std::move(task));
}

void GenericThreadPool::destroy() {
  _done = true;
  _tasks.invalidate();
  for (std::thread& thread : _threads) {
    if (thread.joinable()) {
      thread.join();
    }
  }
}

void GenericThreadPool::workerLoop() {
  while (!_done) {
    std::unique_ptr<IThreadTask> task;
    if (_tasks.waitPop(task)) {
      task->execute();
    }
  }
}

void GenericThreadPool::TaskQueue::push(std::unique_ptr<IThreadTask> task) {
  const ScopedLock lock(_mutex);
  _tasks.push_back(std::move(task));
  _condition.notify_one();
}

bool GenericThreadPool::TaskQueue::waitPop(std::unique_ptr<IThreadTask>& task) {
  ScopedLock lock(_mutex);
  while (_tasks.empty() && _valid) {
    _condition.wait(lock);
  }
  if (!_valid) {
    return false;
  }
  task = std::move(_tasks.front());
  _tasks.pop_front();
  return true;
}

void GenericThreadPool::TaskQueue::invalidate() {
  const ScopedLock lock(_mutex);
  _valid = false;
  _condition.notify_all();
}

}  // namespace kovo
