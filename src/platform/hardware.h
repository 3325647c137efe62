#pragma once

#include <cstdint>

namespace kovo {

// The hardware concurrency figure in force: the one set for the process, else the platform's.
std::uint32_t hardwareConcurrency();
// 0 asks the platform again.
void setHardwareConcurrency(std::uint32_t figure);

}  // namespace kovo
