#include "scheduling/control_thread.h"

#include <boost/bind/bind.hpp>
#include <chrono>
#include <utility>

#include "scheduling/library_thread.h"

namespace kovo {
namespace {

constexpr std::chrono::seconds kTickInterval{1};

}  // namespace

ControlThread::ControlThread(Attend attend, Tick tick)
    : _attend(std::move(attend)),
      _tick(std::move(tick)),
      _thread(startLibraryThread("kovo-control", boost::bind(&ControlThread::loop, this))) {}

ControlThread::~ControlThread() {
  stop();
}

void ControlThread::attend(std::shared_ptr<WorkProvider> provider) {
  const ScopedLock lock(_lock);
  if (!_stopping) {
    _waiting.push_back(std::move(provider));
    _news.notify_one();
  }
}

void ControlThread::keepTicking() {
  const ScopedLock lock(_lock);
  if (!_ticking) {
    _ticking = true;
    _news.notify_one();
  }
}

void ControlThread::stop() {
  std::deque<std::shared_ptr<WorkProvider>> dropped;
  {
    const ScopedLock lock(_lock);
    _stopping = true;
    dropped.swap(_waiting);
    _news.notify_one();
  }
  if (_thread.joinable()) {
    _thread.join();
  }
}

void ControlThread::loop() {
  using SteadyClock = std::chrono::steady_clock;
  SteadyClock::time_point tickTime;
  bool tickTimeSet = false;
  ScopedLock lock(_lock);
  while (!_stopping) {
    if (_ticking && !tickTimeSet) {
      tickTime = SteadyClock::now() + kTickInterval;
      tickTimeSet = true;
    }
    if (_ticking && SteadyClock::now() >= tickTime) {
      tickTimeSet = false;
      // Cleared first, so that a keepTicking that comes while the tick decides is not lost.
      _ticking = false;
      lock.unlock();
      const bool more = _tick();
      lock.lock();
      _ticking = _ticking || more;
    } else if (!_waiting.empty()) {
      std::shared_ptr<WorkProvider> provider = std::move(_waiting.front());
      _waiting.pop_front();
      lock.unlock();
      _attend(provider);
      provider.reset();
      lock.lock();
    } else if (_ticking) {
      _news.wait_until(lock, tickTime);
    } else {
      _news.wait(lock);
    }
  }
}

}  // namespace kovo
