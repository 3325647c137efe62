#pragma once

#include "core/lock.h"

namespace kovo {

// A recursive lock held by shared pointer, one per transfer, for objects that must serialise with
// that transfer.
class Mutex : boost::noncopyable {
 public:
  RecursiveLock& lock() { return _lock; }

 private:
  RecursiveLock _lock;
};

}  // namespace kovo
