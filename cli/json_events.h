#pragma once

#include <chrono>
#include <map>
#include <mutex>

#include "json_text.h"
#include "transfer_observer.h"

namespace kovo::cli {

// Prints one JSON object per event on standard output, each on a line of its own.
class JsonEvents : public TransferObserver {
 public:
  void started(std::uint32_t id, const std::string& url, const std::string& file) override;
  void answered(std::uint32_t id, std::uint32_t status, const std::string& reason,
                const HeaderList& headers) override;
  void progressed(std::uint32_t id, std::uint64_t bytes, std::uint64_t total) override;
  void requestFailed(std::uint32_t id, const RequestFailure& failure,
                     std::optional<std::chrono::milliseconds> pause) override;
  void verifying(std::uint32_t id) override;
  void completed(std::uint32_t id, const Completion& completion) override;
  void failed(std::uint32_t id, const Failure& failure) override;
  void skipped(std::uint32_t id, const std::string& why) override;

 private:
  using Clock = std::chrono::steady_clock;

  JsonObject event(std::string_view name, std::uint32_t id) const;
  void print(const JsonObject& object);

  const Clock::time_point _begin = Clock::now();
  std::mutex _mutex;
  // When the next progress of a transfer may be printed.
  std::map<std::uint32_t, Clock::time_point> _nextProgress;
};

}  // namespace kovo::cli
