#pragma once

#include <boost/function.hpp>
#include <boost/noncopyable.hpp>
#include <deque>
#include <memory>
#include <thread>

#include "core/lock.h"
#include "core/work_provider.h"

namespace kovo {

// One thread beside the pool, for what must not wait until a worker is free: it attends to the
// providers it is given, in order, and ticks once a second for as long as the tick asks for more.
// Neither callback runs with its lock held.
class ControlThread : boost::noncopyable {
 public:
  using Attend = boost::function<void(const std::shared_ptr<WorkProvider>&)>;
  using Tick = boost::function<bool()>;

  ControlThread(Attend attend, Tick tick);
  ~ControlThread();

  void attend(std::shared_ptr<WorkProvider> provider);
  void keepTicking();
  // Waits for a running callback; providers not attended to yet are dropped. Not from the thread
  // itself.
  void stop();

 private:
  void loop();

  const Attend _attend;
  const Tick _tick;
  RecursiveLock _lock;
  ConditionVariable _news;
  std::deque<std::shared_ptr<WorkProvider>> _waiting KOVO_GUARDED_BY(_lock);
  bool _ticking KOVO_GUARDED_BY(_lock) = false;
  bool _stopping KOVO_GUARDED_BY(_lock) = false;
  // Last: it runs from here on.
  std::thread _thread;
};

}  // namespace kovo
