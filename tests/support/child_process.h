#pragma once

#include <sys/types.h>

#include <string>
#include <utility>
#include <vector>

namespace kovo::test {

/**
 * A program run beside the test, its output appended to a file. Ended by the destructor, and by
 * the system when the test dies first.
 */
class ChildProcess {
 public:
  using Environment = std::vector<std::pair<std::string, std::string>>;

  /** arguments[0] is the program, looked up in PATH and the usual system directories. */
  ChildProcess(const std::vector<std::string>& arguments, const std::string& outputFile,
               const Environment& environment = {});
  ~ChildProcess() { stop(); }
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  pid_t pid() const { return _pid; }
  bool running();
  void signal(int number);
  /** Waits for the end and returns the exit status, or 128 + the signal that ended it. */
  int wait();
  /** SIGTERM, and after two seconds SIGKILL. */
  void stop();

  /** Runs a program to its end; throws with its output when that is not a success. */
  static void run(const std::vector<std::string>& arguments, const std::string& outputFile);

 private:
  bool reap(bool block);

  pid_t _pid = -1;
  bool _ended = false;
  int _status = 0;
};

/** The path of a program, or an empty text when it is not installed. */
std::string findProgram(const std::string& name);

}  // namespace kovo::test
