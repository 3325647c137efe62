#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "transfer_observer.h"

namespace kovo::cli {

// What a run looked like. Times are seconds since its begin.
struct Trace {
  struct Request {
    std::uint32_t transfer;
    std::uint32_t lane;  // the worker that served it, from 0
    kovo_chunk_type type;
    std::uint32_t number;
    double begin;
    double end;
    double seen;  // when its last bytes were reported, or its begin
    bool failed = false;
    std::string message;  // why it failed
    double pause = 0;     // before it was sent again
  };
  struct Transfer {
    std::uint32_t id;
    std::string url;
    std::string file;
    std::string outcome;  // empty: complete
    double begin;
    double end;
    std::uint64_t bytes;
  };
  struct Sample {
    double time;
    std::uint64_t bytes;  // of all transfers since the begin
  };
  struct Workers {
    double time;
    Measurement measurement;
  };

  std::vector<Transfer> transfers;
  std::vector<Request> requests;
  std::vector<Sample> samples;
  std::vector<Workers> workers;
  std::uint32_t lanes = 0;
  double duration = 0;
};

// Collects a trace. The engine does not tell the end of a request: it is taken to be where its
// thread begins the next one, or where the transfer ends.
class TraceRecorder : public TransferObserver {
 public:
  void started(std::uint32_t id, const std::string& url, const std::string& file) override;
  void progressed(std::uint32_t id, std::uint64_t bytes, std::uint64_t total) override;
  void requestStarted(std::uint32_t id, kovo_chunk_type type, std::uint32_t number) override;
  void requestFailed(std::uint32_t id, const RequestFailure& failure,
                     std::optional<std::chrono::milliseconds> pause) override;
  void measured(std::uint32_t id, const Measurement& measurement) override;
  void completed(std::uint32_t id, const Completion& completion) override;
  void failed(std::uint32_t id, const Failure& failure) override;
  void skipped(std::uint32_t id, const std::string& why) override;

  // The trace so far, its running requests ended.
  Trace take();

 private:
  struct Lane {
    std::uint32_t number;
    int running = -1;  // index of its request
    double lastBytes = 0;
  };

  double now() const;
  Lane& laneOfThisThread();
  void endRequest(Lane& lane, double next);
  void endTransfer(std::uint32_t id, const std::string& outcome, std::uint64_t bytes);
  template <typename Entry>
  void thinOut(std::vector<Entry>& entries, double& interval);

  const std::chrono::steady_clock::time_point _begin = std::chrono::steady_clock::now();
  std::mutex _mutex;
  Trace _trace;
  std::map<std::thread::id, Lane> _lanes;
  std::map<std::uint32_t, std::uint64_t> _bytes;  // by transfer
  std::map<std::uint32_t, double> _ends;          // of transfers
  std::uint64_t _allBytes = 0;
  double _sampleInterval = 0.005;
  double _workersInterval = 0.05;
};

}  // namespace kovo::cli
