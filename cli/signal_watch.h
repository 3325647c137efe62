#pragma once

#include <signal.h>

#include <atomic>
#include <thread>

#include "event_gate.h"

namespace kovo::cli {

// Turns the signals of a terminal into state the main thread reads. Made before any other thread,
// so that all of them inherit the blocked signals and only the watching thread sees one.
//
// SIGINT, SIGTERM and SIGHUP: the first is remembered, a second ends the process at once. SIGTSTP
// (Ctrl-Z) gives the cursor back before it stops the process.
class SignalWatch {
 public:
  explicit SignalWatch(EventGate& gate);
  SignalWatch(const SignalWatch&) = delete;
  SignalWatch& operator=(const SignalWatch&) = delete;
  ~SignalWatch();

  // The signal that asked to stop, or 0.
  int stopSignal() const { return _stopSignal; }
  // Whether the window changed since the last call.
  bool takeResize() { return _resized.exchange(false); }
  // Whether the process was stopped and continued since the last call.
  bool takeContinued() { return _continued.exchange(false); }

 private:
  void watch();

  EventGate& _gate;
  sigset_t _watched{};
  sigset_t _before{};
  std::atomic<int> _stopSignal = 0;
  std::atomic<bool> _resized = false;
  std::atomic<bool> _continued = false;
  std::atomic<bool> _ending = false;
  std::thread _thread;
};

}  // namespace kovo::cli
