#pragma once

#include <mutex>
#include <string>
#include <vector>

#include "log/kovo_log.h"

namespace kovo::test {

/**
 * Takes what is logged while it lives, at a level of its own. One at a time. A message that another
 * thread has under way when it goes is dropped.
 */
class LogCapture {
 public:
  struct Line {
    std::uint32_t level;
    std::string message;
    std::string function;
  };

  explicit LogCapture(std::uint32_t level = KOVO_LOG_WARN) : _formerLevel(getLogLevel()) {
    setLogLevel(level);
    setCurrent(this);
    registerLoggingCallback(&LogCapture::take, nullptr);
  }
  ~LogCapture() {
    registerLoggingCallback(nullptr, nullptr);
    setCurrent(nullptr);
    setLogLevel(_formerLevel);
  }
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  std::vector<Line> lines() const {
    const std::lock_guard guard(mutex);
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
  static void setCurrent(LogCapture* capture) {
    const std::lock_guard guard(mutex);
    current = capture;
  }
  static void take(std::uint32_t level, const char* message, const char* function, const char*,
                   std::uint32_t, void*) {
    const std::lock_guard guard(mutex);
    if (current != nullptr) current->_lines.push_back({level, message, function});
  }

  static inline std::mutex mutex;
  static inline LogCapture* current = nullptr; /* guarded by mutex */
  const std::uint32_t _formerLevel;
  std::vector<Line> _lines; /* guarded by mutex */
};

}  // namespace kovo::test
