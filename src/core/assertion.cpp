#include "core/assertion.h"

#include <atomic>
#include <cstdio>

namespace kovo {
namespace {

void writeToStandardError(const char* message, const char* file, int line) {
  std::fprintf(stderr, "kovo: assertion failed: %s (%s:%d)\n", message, file, line);
}

std::atomic<AssertionHandler> handlerInForce{&writeToStandardError};

}  // namespace

void reportAssertion(const char* message, const char* file, int line) {
  handlerInForce.load()(message, file, line);
}

void setAssertionHandler(AssertionHandler handler) {
  handlerInForce = handler == nullptr ? &writeToStandardError : handler;
}

}  // namespace kovo
