#include "transfers/background_task.h"

#include <utility>

#include "scheduling/library_thread.h"

namespace kovo {

void BackgroundTask::start(const char* threadName,
                           std::function<void(const std::function<bool()>&)> task) {
  _thread = startLibraryThread(
      threadName, [this, task = std::move(task)] { task([this] { return _stopping.load(); }); });
}

void BackgroundTask::stop() {
  _stopping = true;
  if (_thread.joinable()) {
    _thread.join();
  }
}

}  // namespace kovo
