#pragma once

#include <boost/noncopyable.hpp>
#include <condition_variable>
#include <mutex>

#include "core/thread_annotations.h"

namespace kovo {

// The recursive lock of the whole library. The order in which locks may be taken stands in
// docs/architecture.md.
class KOVO_CAPABILITY("mutex") RecursiveLock : boost::noncopyable {
 public:
  void lock() KOVO_ACQUIRE() { _mutex.lock(); }
  void unlock() KOVO_RELEASE() { _mutex.unlock(); }
  bool try_lock() KOVO_TRY_ACQUIRE(true) { return _mutex.try_lock(); }

 private:
  std::recursive_mutex _mutex;
};

// Holds a RecursiveLock for a scope; may be released and taken again inside it.
class KOVO_SCOPED_CAPABILITY ScopedLock : boost::noncopyable {
 public:
  explicit ScopedLock(RecursiveLock& lock) KOVO_ACQUIRE(lock) : _lock(lock), _held(true) {
    _lock.lock();
  }
  ~ScopedLock() KOVO_RELEASE() {
    if (_held) {
      _lock.unlock();
    }
  }
  void lock() KOVO_ACQUIRE() {
    _lock.lock();
    _held = true;
  }
  void unlock() KOVO_RELEASE() {
    _held = false;
    _lock.unlock();
  }

 private:
  RecursiveLock& _lock;
  bool _held;
};

// Waits on a ScopedLock that holds its lock once (not re-entered).
using ConditionVariable = std::condition_variable_any;

}  // namespace kovo
