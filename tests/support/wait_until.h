#pragma once

#include <chrono>
#include <functional>

namespace kovo::test {

/** Polls predicate until it holds or timeout has passed; returns what it said last. */
bool waitUntil(const std::function<bool()>& predicate, std::chrono::milliseconds timeout);

}  // namespace kovo::test
