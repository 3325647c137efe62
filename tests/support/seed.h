#pragma once

#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <random>

namespace kovo::test {

/** A number the environment variable name overrides. */
inline int64_t numberFrom(const char* name, int64_t otherwise) {
  const char* text = std::getenv(name);
  return text != nullptr ? std::atoll(text) : otherwise;
}

/** The seed the environment variable name holds, or a fresh one; printed, so that a run can be
 * repeated. */
inline uint32_t seedFrom(const char* name) {
  const auto seed = static_cast<uint32_t>(numberFrom(name, std::random_device{}()));
  std::cout << name << '=' << seed << std::endl;
  return seed;
}

}  // namespace kovo::test
