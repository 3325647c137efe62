#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "retry_policy.h"

namespace kovo::cli {

class Failure;

using HeaderList = std::vector<std::pair<std::string, std::string>>;

// One measurement of the engine, from a monitor record.
struct Measurement {
  bool adaptive = false;
  std::uint64_t bytesPerSecond = 0;
  std::uint32_t workers = 0;        // that run
  std::uint32_t targetWorkers = 0;  // that should
  std::uint32_t reason = 0;         // the number of the adaptive strategy's last reason
};

// What a transfer has brought.
struct Completion {
  std::string file;         // printable; empty: none
  std::uint64_t bytes = 0;  // the size of the file or body
  std::uint64_t moved = 0;  // without what earlier runs had left
  std::chrono::steady_clock::duration took{};
};

// Hears what happens to transfers; id is the transfer's place on the command line, from 1. Any
// thread may call, several at once; requestStarted, requestFailed and progressed come on the thread
// that serves the request.
class TransferObserver {
 public:
  TransferObserver() = default;
  TransferObserver(const TransferObserver&) = delete;
  TransferObserver& operator=(const TransferObserver&) = delete;
  virtual ~TransferObserver() = default;

  virtual void started(std::uint32_t, const std::string& /*url*/, const std::string& /*file*/) {}
  virtual void answered(std::uint32_t, std::uint32_t /*status*/, const std::string& /*reason*/,
                        const HeaderList&) {}
  virtual void progressed(std::uint32_t, std::uint64_t /*bytes*/, std::uint64_t /*total*/) {}
  virtual void requestStarted(std::uint32_t, kovo_chunk_type, std::uint32_t /*number*/) {}
  // Without a pause the request is given up.
  virtual void requestFailed(std::uint32_t, const RequestFailure&,
                             std::optional<std::chrono::milliseconds> /*pause*/) {}
  virtual void measured(std::uint32_t, const Measurement&) {}
  // Everything has come, and its checksum is computed.
  virtual void verifying(std::uint32_t) {}
  virtual void completed(std::uint32_t, const Completion&) {}
  virtual void failed(std::uint32_t, const Failure&) {}
  virtual void skipped(std::uint32_t, const std::string& /*why*/) {}
};

// Passes everything on to several.
class ObserverList : public TransferObserver {
 public:
  void add(TransferObserver& observer) { _all.push_back(&observer); }
  bool empty() const { return _all.empty(); }

  void started(std::uint32_t id, const std::string& url, const std::string& file) override {
    for (auto* one : _all) one->started(id, url, file);
  }
  void answered(std::uint32_t id, std::uint32_t status, const std::string& reason,
                const HeaderList& headers) override {
    for (auto* one : _all) one->answered(id, status, reason, headers);
  }
  void progressed(std::uint32_t id, std::uint64_t bytes, std::uint64_t total) override {
    for (auto* one : _all) one->progressed(id, bytes, total);
  }
  void requestStarted(std::uint32_t id, kovo_chunk_type type, std::uint32_t number) override {
    for (auto* one : _all) one->requestStarted(id, type, number);
  }
  void requestFailed(std::uint32_t id, const RequestFailure& failure,
                     std::optional<std::chrono::milliseconds> pause) override {
    for (auto* one : _all) one->requestFailed(id, failure, pause);
  }
  void measured(std::uint32_t id, const Measurement& measurement) override {
    for (auto* one : _all) one->measured(id, measurement);
  }
  void verifying(std::uint32_t id) override {
    for (auto* one : _all) one->verifying(id);
  }
  void completed(std::uint32_t id, const Completion& completion) override {
    for (auto* one : _all) one->completed(id, completion);
  }
  void failed(std::uint32_t id, const Failure& failure) override {
    for (auto* one : _all) one->failed(id, failure);
  }
  void skipped(std::uint32_t id, const std::string& why) override {
    for (auto* one : _all) one->skipped(id, why);
  }

 private:
  std::vector<TransferObserver*> _all;
};

}  // namespace kovo::cli
