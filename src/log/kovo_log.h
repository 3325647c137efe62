#pragma once

#include <kovo/kovo.h>

#include <cstdint>
#include <string>

namespace kovo {

// Emits one message; does not test the level. function is the qualified operation name, file the
// source file.
void kovoLog(const char* function, const char* file, std::uint32_t line, std::uint32_t level,
             const char* format, ...) __attribute__((format(printf, 5, 6)));

// Whether a message of this level is wanted now: one relaxed atomic read.
bool isLogLevelEnabled(std::uint32_t level) noexcept;

// Called by each engine with its base directory; the first sets directory, level and retention.
// With an empty one there is no log file.
void kovoInitLog(const char* directory);
// Called by each engine's destructor; true when it closed the logger.
bool kovoDeinitLog();

void setLogLevel(std::uint32_t level);
std::uint32_t getLogLevel();
void registerLoggingCallback(kovo_logging_callback callback, void* loggingContext);
// Whether the calling thread is in the client's logging callback.
bool isInLoggingCallback() noexcept;
const char* levelName(std::uint32_t level);

}  // namespace kovo

// Logs at a level, e.g. KOVO_LOG(KOVO_LOG_WARN, "kovo::Transfer::cancel", "token %u", token).
// The arguments are evaluated only when the level is on.
#define KOVO_LOG(level, function, ...)                                       \
  do {                                                                       \
    if (::kovo::isLogLevelEnabled(level)) {                                  \
      ::kovo::kovoLog((function), __FILE__, __LINE__, (level), __VA_ARGS__); \
    }                                                                        \
  } while (false)
