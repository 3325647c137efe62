#pragma once

#include <boost/function.hpp>
#include <boost/noncopyable.hpp>
#include <thread>

namespace kovo {

// Starts a thread of the library's own. It carries the name (at most 15 bytes) in debuggers, leaves
// the host's signals to the host's threads, and counts as a library thread.
std::thread startLibraryThread(const char* name, boost::function<void()> body);

// Makes the calling thread count as a library thread for a scope: client callbacks are made on it.
class LibraryThreadScope : boost::noncopyable {
 public:
  LibraryThreadScope();
  ~LibraryThreadScope();

  static bool isActive();

 private:
  const bool _outer;
};

}  // namespace kovo
