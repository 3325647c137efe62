#pragma once

#include <functional>
#include <memory>
#include <optional>

#include "common_options.h"
#include "event_gate.h"
#include "exit_code.h"
#include "job_queue.h"
#include "json_events.h"
#include "signal_watch.h"
#include "terminal.h"
#include "trace_recorder.h"
#include "transfer_observer.h"

namespace kovo::cli {

// What a command that transfers needs around its jobs: signals, the terminal, and those who listen.
// Made before any other thread.
class Session {
 public:
  explicit Session(const CommonOptions& options);
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  EventGate& gate() { return _gate; }
  SignalWatch& signals() { return _signals; }
  Terminal& terminal() { return _terminal; }
  TransferObserver& observer() { return _observers; }
  // One more who listens; outlives run.
  void add(TransferObserver& observer) { _observers.add(observer); }

  // Runs the jobs on an engine of these options and writes the trace. Does not return when the
  // process must end without destroying the engine.
  ExitCode run(const EngineOptions& engineOptions, std::uint32_t count, std::uint32_t parallel,
               const JobQueue::Factory& make);

 private:
  void writeTrace();

  const CommonOptions& _options;
  EventGate _gate;
  SignalWatch _signals;
  Terminal _terminal;
  std::optional<JsonEvents> _json;
  std::optional<TraceRecorder> _trace;
  ObserverList _observers;
};

}  // namespace kovo::cli
