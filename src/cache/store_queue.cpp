#include "cache/store_queue.h"

#include <pthread.h>

#include <system_error>
#include <utility>

namespace kovo {
namespace {

// What an entry keeps from others, not what it holds of use.
std::size_t memoryOf(const StoreQueue::Entry& entry) {
  return entry.body.blocks.size() * ByteBlock::kCapacity;
}

}  // namespace

StoreQueue::StoreQueue(std::size_t byteLimit, std::function<void()> store)
    : _byteLimit(byteLimit), _store(std::move(store)) {}

StoreQueue::~StoreQueue() {
  stop(std::chrono::milliseconds(0), nullptr);
}

bool StoreQueue::push(Entry entry) {
  const std::size_t memory = memoryOf(entry);
  ScopedLock lock(_lock);
  if (_isStopping || memory > _byteLimit || _bytes > _byteLimit - memory) {
    return false;
  }
  if (!_thread.joinable()) {
    try {
      _thread = std::thread([this] { run(); });
    } catch (const std::system_error&) {
      return false;  // no thread to be had: the body is dropped
    }
  }
  _bytes += memory;
  _entries.push_back(std::move(entry));
  _arrived.notify_one();
  return true;
}

std::vector<StoreQueue::Entry> StoreQueue::take(std::size_t byteLimit) {
  std::vector<Entry> taken;
  std::size_t bytes = 0;
  ScopedLock lock(_lock);
  while (!_entries.empty() && bytes < byteLimit) {
    bytes += memoryOf(_entries.front());
    taken.push_back(std::move(_entries.front()));
    _entries.pop_front();
  }
  // The blocks still exist, but the caller of take is the only one who has any.
  _bytes -= bytes;
  return taken;
}

void StoreQueue::clear() {
  ScopedLock lock(_lock);
  clearHoldingLock();
}

void StoreQueue::clearHoldingLock() {
  _entries.clear();
  _bytes = 0;
}

bool StoreQueue::waitUntilIdle(std::chrono::milliseconds timeout) {
  ScopedLock lock(_lock);
  return waitUntilIdleHolding(lock, timeout);
}

bool StoreQueue::waitUntilIdleHolding(ScopedLock& lock, std::chrono::milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (!_entries.empty() || _isStoring) {
    if (_idle.wait_until(lock, deadline) == std::cv_status::timeout) {
      return _entries.empty() && !_isStoring;
    }
  }
  return true;
}

void StoreQueue::stop(std::chrono::milliseconds patience, const std::function<void()>& giveUp) {
  std::thread thread;
  bool isIdle = true;
  {
    ScopedLock lock(_lock);
    if (_isStopping) {
      return;
    }
    _isStopping = true;  // nothing is accepted from here on
    isIdle = waitUntilIdleHolding(lock, patience);
    clearHoldingLock();
    thread.swap(_thread);
    _arrived.notify_one();
  }
  if (!isIdle && giveUp) {
    giveUp();
  }
  if (thread.joinable()) {
    thread.join();
  }
}

void StoreQueue::run() {
  ::pthread_setname_np(::pthread_self(), "kovo-cache");
  ScopedLock lock(_lock);
  for (;;) {
    while (_entries.empty()) {
      _isStoring = false;
      _idle.notify_all();
      if (_isStopping) {
        return;
      }
      _arrived.wait(lock);
    }
    _isStoring = true;
    lock.unlock();
    _store();
    lock.lock();
  }
}

}  // namespace kovo
