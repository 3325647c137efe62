#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

#include "event_gate.h"
#include "exit_code.h"
#include "failure.h"
#include "job.h"
#include "progress_board.h"
#include "signal_watch.h"
#include "terminal.h"
#include "transfer_observer.h"

namespace kovo::cli {

// Runs jobs on an engine, some at once, on the main thread: starts them, draws them, reports their
// ends, and turns the first signal that asks to stop into cancellations.
class JobQueue {
 public:
  // Makes the job of the given id, counted from 1. Throws Failure when it cannot be; a failure of
  // code kOk says that there is nothing to do.
  using Factory = std::function<std::unique_ptr<Job>(std::uint32_t id)>;

  JobQueue(Terminal& terminal, SignalWatch& signals, EventGate& gate, TransferObserver& observer)
      : _terminal(terminal), _signals(signals), _gate(gate), _observer(observer) {}

  // Runs jobs 1 to count, at most parallel at once. The queue outlives the engine. Returns the code
  // of the first job, in their order, that failed.
  ExitCode run(kovo_instance instance, std::uint32_t count, std::uint32_t parallel,
               const Factory& make);

  // The engine must not be destroyed: the process is to end at once (see Transfer::Status).
  bool holdsRecord() const { return _holdsRecord; }

 private:
  using Clock = std::chrono::steady_clock;

  struct Running {
    std::uint32_t id;
    Job* job;
    Clock::time_point started;
    bool counted = false;  // the bytes of earlier runs are known
    std::uint64_t before = 0;
    bool cancellable = true;
    Transfer::Status status;
  };

  void startNext(kovo_instance instance, const Factory& make);
  void look(Running& running);
  void stopRunning();
  void finish(const Running& running);
  void report(std::uint32_t id, const Failure& failure);
  void draw();

  Terminal& _terminal;
  SignalWatch& _signals;
  EventGate& _gate;
  TransferObserver& _observer;
  ProgressBoard _board;
  // All that were started: the engine may call back until it is destroyed.
  std::vector<std::unique_ptr<Job>> _jobs;
  std::vector<Running> _running;
  std::uint32_t _nextId = 1;
  std::uint32_t _lastId = 0;
  std::uint32_t _firstFailed = 0;
  ExitCode _code = ExitCode::kOk;
  bool _stopped = false;
  bool _holdsRecord = false;
};

// Prints "kovo: what" and the advice, with secrets taken out.
void printFailure(Terminal* terminal, const Failure& failure);

}  // namespace kovo::cli
