#pragma once

#include <boost/noncopyable.hpp>
#include <cstdarg>
#include <cstdint>

namespace kovo {

// Keeps the calling thread's log messages back until its outermost scope ends. Declared before a
// lock is taken, it keeps the client's logging callback from running under that lock, whatever
// code logs meanwhile.
class DeferredLog : boost::noncopyable {
 public:
  DeferredLog();
  // Throws only what ends the thread: it may be cancelled in the client's callback.
  ~DeferredLog() noexcept(false);

  // For kovoLog: keeps the message and answers true inside a scope. Throws for want of memory.
  static bool keep(const char* function, const char* file, std::uint32_t line, std::uint32_t level,
                   const char* format, std::va_list arguments)
      __attribute__((format(printf, 5, 0)));
};

}  // namespace kovo
