#include "signal_watch.h"

#include <unistd.h>

#include <cerrno>

#include "terminal.h"

namespace kovo::cli {

namespace {

// Wakes the watching thread when it is to end; never sent by anyone else.
constexpr int kEndSignal = SIGUSR2;

}  // namespace

SignalWatch::SignalWatch(EventGate& gate) : _gate(gate) {
  sigemptyset(&_watched);
  for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
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
  while (true) {
    int signal = 0;
    if (::sigwait(&_watched, &signal) != 0) continue;
    if (signal == kEndSignal) {
      if (_ending) return;
    } else if (signal == SIGWINCH) {
      _resized = true;
    } else {
      int none = 0;
      if (!_stopSignal.compare_exchange_strong(none, signal)) {
        Terminal::restoreAtOnce();
        ::_exit(128 + signal);
      }
    }
    _gate.notify();
  }
}

}  // namespace kovo::cli
