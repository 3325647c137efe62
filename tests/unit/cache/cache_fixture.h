#pragma once

#include <sys/types.h>

#include <cstdint>
#include <ctime>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "platform/clock.h"

namespace kovo::test {

// A clock that stands until it is moved; it begins now, for files are as old as the system says.
class ManualClock : public Clock {
 public:
  std::int64_t nowMilliseconds() override { return seconds * 1000; }
  bool sleepMilliseconds(std::int64_t, const Interrupt*) override { return true; }

  std::int64_t seconds = std::time(nullptr);
};

// Collects every line of the process's log while it lives.
class LogCapture {
 public:
  LogCapture();
  ~LogCapture();
  std::size_t count(const std::string& part) const;

 private:
  mutable std::mutex _mutex;
  std::vector<std::string> _lines;
};

// Runs statements on a database file through a connection of its own; throws on failure. Answers
// the first column of the last row.
std::string sql(const std::string& path, const std::string& statements);

void writeFile(const std::string& path, const std::string& content);
std::string readFile(const std::string& path);
void overwrite(const std::string& path, std::uint64_t offset, const std::string& bytes);

// Runs body in a forked process of its own; it ends with the status body answers.
pid_t spawn(const std::function<int()>& body);
// The exit status of a child, or 128 + the signal that ended it.
int waitFor(pid_t child);
// Files of this process cannot grow beyond size from here on: writes fail as on a full disk.
void limitFileSize(std::uint64_t size);

}  // namespace kovo::test
