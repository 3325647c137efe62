#pragma once

#include <cstdint>
#include <memory>

namespace kovo {

class WorkProvider;

// One unit that a worker thread runs to completion in one call. Created and destroyed by its
// provider; the scheduler and the worker only borrow it.
class Work {
 public:
  Work() = default;
  Work(const Work&) = delete;
  Work& operator=(const Work&) = delete;
  virtual ~Work() = default;

  // Performs the whole unit on the calling thread; never throws.
  virtual void run() = 0;
  // Units watch their transfer's cancelled flag, so this asks for nothing more.
  virtual void cancel() = 0;
  virtual bool isFinished() const = 0;
  virtual std::shared_ptr<WorkProvider> getParent() const = 0;
  virtual void setParent(std::shared_ptr<WorkProvider> parent) = 0;
  // HTTP status of the response, 0 if none.
  virtual std::uint32_t getHttpStatus() const = 0;
  // A kovo_error, 0 if none.
  virtual std::uint32_t getErrorCode() const = 0;
  virtual bool isTimedOut() const = 0;
};

}  // namespace kovo
