#pragma once

#include <kovo/kovo.h>

#include <cstddef>
#include <cstdint>

namespace kovo {

class Work;

// A source of work with a life of its own: every transfer is one.
//
// getNextWork and onFinish are called by worker threads, under the scheduler's work lock; the
// control operations and the queries come from any thread, the queries also under the scheduler's
// provider lock. So whatever a query answers from must be readable without the lock that onFinish
// holds.
class WorkProvider {
 public:
  WorkProvider() = default;
  WorkProvider(const WorkProvider&) = delete;
  WorkProvider& operator=(const WorkProvider&) = delete;
  virtual ~WorkProvider() = default;

  // The next unit, or null when there is nothing to run now. Never throws.
  virtual Work* getNextWork() = 0;
  // The unit has run: advances the state and destroys the unit. True when the scheduler must act:
  // the provider is finished, or a pause has drained. Client callbacks that this step calls for
  // are not made here but kept for deliverNotifications. Never throws.
  virtual bool onFinish(Work* work) = 0;
  virtual bool isFinished() const = 0;
  virtual kovo_error cancel(bool dueToError) = 0;
  // Marks the provider as pausing; true if it was not before.
  virtual bool pause(bool restartWhenDrained) = 0;
  virtual bool isCancelled() const = 0;
  virtual bool isPausing() const = 0;
  virtual void clearPausing() = 0;
  // How many units could be handed out now.
  virtual std::uint32_t getAvailableWorkCount() const = 0;
  virtual std::uint32_t getToken() const = 0;
  virtual void setToken(std::uint32_t token) = 0;
  virtual bool isSerial() const = 0;
  virtual std::uint32_t getPriority() const = 0;
  virtual bool shouldRestartWhenDrained() const = 0;
  // Forwards a monitoring record to the client.
  virtual void monitor(std::uint32_t kind, const void* data, std::size_t length) = 0;

  // A resume has reached a provider whose pause still drains: run again once it has, and do not
  // report the pause.
  virtual void restartOnceDrained() = 0;
  // Units handed out and not yet given back.
  virtual std::size_t getActiveWorkCount() const = 0;
  // The pause of a provider without active units is complete: as onFinish does for the last unit.
  virtual void onPauseDrained() = 0;
  // Ends the provider's life without the client's doing, with an error of code 5 ("Cancelled")
  // unless one is recorded already; for the engine's shutdown.
  virtual void abandon() = 0;
  // Makes the client callbacks that earlier steps have called for, in order, on the calling thread
  // and with no lock held. Never throws.
  virtual void deliverNotifications() = 0;
};

}  // namespace kovo
