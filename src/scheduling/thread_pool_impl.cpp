#include "scheduling/thread_pool_impl.h"

#include <algorithm>
#include <future>
#include <memory>
#include <utility>

namespace kovo {

ThreadPoolImpl::ThreadPoolImpl(boost::function<void()> workerCallback,
                               const boost::function<void()>& /*timerCallback*/,
                               std::uint32_t hardwareFigure)
    : _workerCallback(std::move(workerCallback)),
      _pool(std::max<std::uint32_t>(hardwareFigure, 2) - 1) {}

void ThreadPoolImpl::startWorker() {
  std::packaged_task<void()> run([this] { _workerCallback(); });
  _pool.push(std::make_unique<GenericThreadPool::ThreadTask>(std::move(run)));
}

}  // namespace kovo
