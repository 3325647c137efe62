#include "scheduling/library_thread.h"

#include <pthread.h>
#include <signal.h>

#include <utility>

namespace kovo {
namespace {

thread_local bool libraryThread = false;

// Blocks asynchronous signals for a scope; threads created in it inherit that.
class SignalBlock : boost::noncopyable {
 public:
  SignalBlock() {
    sigset_t blocked;
    sigfillset(&blocked);
    // Faults of the thread's own, and the profiler's clock, must reach it.
    for (const int number : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGABRT, SIGPROF}) {
      sigdelset(&blocked, number);
    }
    pthread_sigmask(SIG_SETMASK, &blocked, &_before);
  }
  ~SignalBlock() { pthread_sigmask(SIG_SETMASK, &_before, nullptr); }

 private:
  sigset_t _before;
};

}  // namespace

std::thread startLibraryThread(const char* name, boost::function<void()> body) {
  const SignalBlock block;
  std::thread thread([body = std::move(body)] {
    const LibraryThreadScope scope;
    body();
  });
  pthread_setname_np(thread.native_handle(), name);
  return thread;
}

LibraryThreadScope::LibraryThreadScope() : _outer(libraryThread) {
  libraryThread = true;
}

LibraryThreadScope::~LibraryThreadScope() {
  libraryThread = _outer;
}

bool LibraryThreadScope::isActive() {
  return libraryThread;
}

}  // namespace kovo
