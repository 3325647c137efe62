#include "unit/cache/cache_fixture.h"

#include <signal.h>
#include <sqlite3.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <iterator>
#include <stdexcept>

#include "log/kovo_log.h"

namespace kovo::test {

LogCapture::LogCapture() {
  setLogLevel(KOVO_LOG_TRACE);
  registerLoggingCallback(
      [](auto, const char* message, const char*, const char*, auto, void* context) {
        auto* self = static_cast<LogCapture*>(context);
        std::lock_guard<std::mutex> guard(self->_mutex);
        self->_lines.emplace_back(message);
      },
      this);
}

LogCapture::~LogCapture() {
  registerLoggingCallback(nullptr, nullptr);
  setLogLevel(KOVO_LOG_NONE);
}

std::size_t LogCapture::count(const std::string& part) const {
  std::lock_guard<std::mutex> guard(_mutex);
  return static_cast<std::size_t>(
      std::count_if(_lines.begin(), _lines.end(),
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

void writeFile(const std::string& path, const std::string& content) {
  std::ofstream(path, std::ios::binary | std::ios::trunc) << content;
}

std::string readFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
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
