#pragma once

#include <boost/noncopyable.hpp>
#include <chrono>
#include <cstddef>
#include <deque>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "cache/cacheable_response.h"
#include "cache/http_get_cache.h"
#include "core/lock.h"

namespace kovo {

// Bodies waiting to be stored, and the thread that stores them. Bounded: what finds no room is
// dropped, because nobody may wait for a cache. The thread starts with the first body.
class StoreQueue : boost::noncopyable {
 public:
  struct Entry {
    std::string url;
    CacheableResponse response;
    BlockList body;
  };

  // store runs on the thread whenever bodies wait, and takes them; it must not throw.
  StoreQueue(std::size_t byteLimit, std::function<void()> store);
  // Ends the thread if stop has not.
  ~StoreQueue();

  // False when the body was dropped.
  bool push(Entry entry);
  // Entries of about byteLimit together, at least one when there is any.
  std::vector<Entry> take(std::size_t byteLimit);
  void clear();
  // Waits until everything handed over is stored; false when that took longer.
  bool waitUntilIdle(std::chrono::milliseconds timeout);
  // Stores what waits for patience at most, then calls giveUp, drops the rest and ends the thread.
  void stop(std::chrono::milliseconds patience, const std::function<void()>& giveUp);

 private:
  void run();
  void clearHoldingLock() KOVO_REQUIRES(_lock);
  bool waitUntilIdleHolding(ScopedLock& lock, std::chrono::milliseconds timeout)
      KOVO_REQUIRES(_lock);

  const std::size_t _byteLimit;
  const std::function<void()> _store;

  RecursiveLock _lock;
  ConditionVariable _arrived;
  ConditionVariable _idle;
  std::deque<Entry> _entries KOVO_GUARDED_BY(_lock);
  std::size_t _bytes KOVO_GUARDED_BY(_lock) = 0;
  bool _isStoring KOVO_GUARDED_BY(_lock) = false;
  bool _isStopping KOVO_GUARDED_BY(_lock) = false;
  std::thread _thread KOVO_GUARDED_BY(_lock);
};

}  // namespace kovo
