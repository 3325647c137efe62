#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "event_gate.h"
#include "signal_watch.h"
#include "terminal.h"
#include "transfer.h"

namespace kovo::cli {

// Follows one started transfer to its end on the main thread: draws its line, and turns the first
// signal that asks to stop into a cancellation.
class TransferRunner {
 public:
  TransferRunner(Terminal& terminal, SignalWatch& signals, EventGate& gate)
      : _terminal(terminal), _signals(signals), _gate(gate) {}

  // storedBefore is asked once, when the first bytes have come: how many bytes of the resource
  // earlier runs have left. Returns the status with the final end.
  Transfer::Status follow(Transfer& transfer, const std::string& name,
                          const std::function<std::uint64_t()>& storedBefore);

 private:
  Terminal& _terminal;
  SignalWatch& _signals;
  EventGate& _gate;
};

// Throws the Failure that tells of a transfer which ended in another way than complete. url is the
// one the user gave; resumeHint says how to go on with what is stored.
[[noreturn]] void throwFailure(const Transfer::Status& status, const std::string& doing,
                               const std::string& url, int stopSignal,
                               const std::string& resumeHint);

}  // namespace kovo::cli
