#pragma once

#include <boost/function.hpp>
#include <cstdint>

#include "platform/hardware.h"
#include "scheduling/generic_thread_pool.h"
#include "scheduling/thread_pool.h"

namespace kovo {

// One thread fewer than the hardware runs at once, but at least one. Runs no timer, so the timer
// callback is not kept.
class ThreadPoolImpl : public ThreadPool {
 public:
  ThreadPoolImpl(boost::function<void()> workerCallback,
                 const boost::function<void()>& timerCallback,
                 std::uint32_t hardwareFigure = hardwareConcurrency());
  void startWorker() override;
  void wake() override {}

 private:
  const boost::function<void()> _workerCallback;
  // Last, so that the threads are joined before the callback is released.
  GenericThreadPool _pool;
};

}  // namespace kovo
