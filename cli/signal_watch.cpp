#include "signal_watch.h"

#include <unistd.h>

#include <cerrno>
#include <chrono>

#include "terminal.h"

namespace kovo::cli {

namespace {

// Wakes the watching thread when it is to end; never sent by anyone else.
constexpr int kEndSignal = SIGUSR2;
// Supervisors signal a process and then its group: what follows so closely is the same request.
constexpr std::chrono::milliseconds kOneStop{200};

// Stops the process as the signal does that was taken from it; the kernel knows when nobody would
// be there to continue it, and then does nothing.
void stopUntilContinued() {
  sigset_t stop{};
  sigemptyset(&stop);
  sigaddset(&stop, SIGTSTP);
  ::raise(SIGTSTP);
  ::pthread_sigmask(SIG_UNBLOCK, &stop, nullptr);
  ::pthread_sigmask(SIG_BLOCK, &stop, nullptr);
}

}  // namespace

SignalWatch::SignalWatch(EventGate& gate) : _gate(gate) {
  sigemptyset(&_watched);
  for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGTSTP}) {
    // A shell that starts a program in the background ignores these on purpose (nohup, &).
    struct sigaction action {};
    if (::sigaction(signal, nullptr, &action) == 0 && action.sa_handler == SIG_IGN) continue;
    sigaddset(&_watched, signal);
  }
  sigaddset(&_watched, SIGWINCH);
  sigaddset(&_watched, kEndSignal);
  ::pthread_sigmask(SIG_BLOCK, &_watched, &_before);
  _thread = std::thread([this] { watch(); });
}

SignalWatch::~SignalWatch() {
  _ending = true;
  ::pthread_kill(_thread.native_handle(), kEndSignal);
  _thread.join();
  ::pthread_sigmask(SIG_SETMASK, &_before, nullptr);
}

void SignalWatch::watch() {
  std::chrono::steady_clock::time_point firstStop;
  while (true) {
    int signal = 0;
    if (::sigwait(&_watched, &signal) != 0) continue;
    if (signal == kEndSignal) {
      if (_ending) return;
    } else if (signal == SIGWINCH) {
      _resized = true;
    } else if (signal == SIGTSTP) {
      const Terminal::Pause pause;
      stopUntilContinued();
      _continued = true;
    } else {
      const auto now = std::chrono::steady_clock::now();
      int none = 0;
      if (_stopSignal.compare_exchange_strong(none, signal)) {
        firstStop = now;
      } else if (now - firstStop > kOneStop) {
        const Terminal::Pause pause;
        ::_exit(128 + signal);
      }
    }
    _gate.notify();
  }
}

}  // namespace kovo::cli
