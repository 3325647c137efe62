#pragma once

#include "core/work.h"

namespace kovo {

// Does nothing: lets a worker come back to its provider so that it can advance its state.
class NullWork : public Work {
 public:
  void run() override { _finished = true; }
  void cancel() override {}
  bool isFinished() const override { return _finished; }
  std::shared_ptr<WorkProvider> getParent() const override { return _parent; }
  void setParent(std::shared_ptr<WorkProvider> parent) override;
  std::uint32_t getHttpStatus() const override { return 0; }
  std::uint32_t getErrorCode() const override { return 0; }
  bool isTimedOut() const override { return false; }

 private:
  bool _finished = false;
  std::shared_ptr<WorkProvider> _parent;
};

}  // namespace kovo
