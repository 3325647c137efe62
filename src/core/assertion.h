#pragma once

namespace kovo {

// Reports a broken invariant with its message and place; never ends the process, because each
// caller defines what happens next.
using AssertionHandler = void (*)(const char* message, const char* file, int line);

void reportAssertion(const char* message, const char* file, int line);

// Replaces the handler (tests); null restores the default, which writes to standard error.
void setAssertionHandler(AssertionHandler handler);

}  // namespace kovo

// Debug builds report a violated condition; release builds do not evaluate it.
#ifndef NDEBUG
#define KOVO_ASSERT(condition, message)                       \
  do {                                                        \
    if (!(condition)) {                                       \
      ::kovo::reportAssertion((message), __FILE__, __LINE__); \
    }                                                         \
  } while (false)
#else
#define KOVO_ASSERT(condition, message) \
  do {                                  \
  } while (false)
#endif
