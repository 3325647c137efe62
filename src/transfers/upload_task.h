#pragma once

#include <functional>
#include <utility>

#include "core/null_work.h"

namespace kovo {

// What an upload does beside its requests and what may take its time: reading the file's facts and
// checksum, looking into the resume database. A worker runs it like a request, so that no lock is
// held and no other transfer waits.
class UploadTask : public NullWork {
 public:
  // task does not throw.
  explicit UploadTask(std::function<void()> task) : _task(std::move(task)) {}
  void run() override {
    _task();
    NullWork::run();
  }

 private:
  const std::function<void()> _task;
};

}  // namespace kovo
