#pragma once

#include <mutex>
#include <string>
#include <vector>

#include "log/kovo_log.h"

namespace kovo::test {

/** Takes what is logged while it lives, at a level of its own. One at a time. */
class LogCapture {
 public:
  struct Line {
    std::uint32_t level;
    std::string message;
    std::string function;
  };

  explicit LogCapture(std::uint32_t level = KOVO_LOG_WARN) : _formerLevel(getLogLevel()) {
    setLogLevel(level);
    registerLoggingCallback(&LogCapture::take, this);
  }
  ~LogCapture() {
    registerLoggingCallback(nullptr, nullptr);
    setLogLevel(_formerLevel);
  }
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  std::vector<Line> lines() const {
    const std::lock_guard guard(_mutex);
    return _lines;
  }
  /** The messages alone. */
  std::vector<std::string> messages() const {
    std::vector<std::string> texts;
    for (const Line& line : lines()) {
      texts.push_back(line.message);
    }
    return texts;
  }

 private:
  static void take(std::uint32_t level, const char* message, const char* function, const char*,
                   std::uint32_t, void* context) {
    auto* self = static_cast<LogCapture*>(context);
    const std::lock_guard guard(self->_mutex);
    self->_lines.push_back({level, message, function});
  }

  const std::uint32_t _formerLevel;
  mutable std::mutex _mutex;
  std::vector<Line> _lines; /* guarded by _mutex */
};

}  // namespace kovo::test
