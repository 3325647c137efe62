#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <string>

#include "support/log_capture.h"
#include "support/resource.h"

namespace kovo::test {

// How many lines hold the part.
std::size_t count(const LogCapture& log, const std::string& part);

// Runs statements on a database file through a connection of its own; throws on failure. Answers
// the first column of the last row.
std::string sql(const std::string& path, const std::string& statements);

void overwrite(const std::string& path, std::uint64_t offset, const std::string& bytes);

// Runs body in a forked process of its own; it ends with the status body answers.
pid_t spawn(const std::function<int()>& body);
// The exit status of a child, or 128 + the signal that ended it.
int waitFor(pid_t child);
// Files of this process cannot grow beyond size from here on: writes fail as on a full disk.
void limitFileSize(std::uint64_t size);

}  // namespace kovo::test
