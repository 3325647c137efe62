#include "unit/cache/cache_fixture.h"

#include <signal.h>
#include <sqlite3.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <stdexcept>

namespace kovo::test {

std::size_t count(const LogCapture& log, const std::string& part) {
  const auto lines = log.messages();
  return static_cast<std::size_t>(
      std::count_if(lines.begin(), lines.end(),
                    [&](const std::string& line) { return line.find(part) != std::string::npos; }));
}

std::string sql(const std::string& path, const std::string& statements) {
  sqlite3* handle = nullptr;
  std::string last;
  ::sqlite3_open(path.c_str(), &handle);
  ::sqlite3_busy_timeout(handle, 10000);
  const int result = ::sqlite3_exec(
      handle, statements.c_str(),
      [](void* context, int, char** values, char**) {
        *static_cast<std::string*>(context) = values[0] == nullptr ? "" : values[0];
        return 0;
      },
      &last, nullptr);
  const std::string message = ::sqlite3_errmsg(handle);
  ::sqlite3_close(handle);
  if (result != SQLITE_OK) {
    throw std::runtime_error(statements + ": " + message);
  }
  return last;
}

void overwrite(const std::string& path, std::uint64_t offset, const std::string& bytes) {
  std::fstream file(path, std::ios::binary | std::ios::in | std::ios::out);
  file.seekp(static_cast<std::streamoff>(offset));
  file << bytes;
}

pid_t spawn(const std::function<int()>& body) {
  const pid_t child = ::fork();
  if (child == 0) {
    ::alarm(60);
    ::_exit(body());
  }
  return child;
}

int waitFor(pid_t child) {
  int status = 0;
  ::waitpid(child, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

void limitFileSize(std::uint64_t size) {
  ::signal(SIGXFSZ, SIG_IGN);
  const rlimit limit{size, size};
  ::setrlimit(RLIMIT_FSIZE, &limit);
}

}  // namespace kovo::test
