#include "platform/hardware.h"

#include <sched.h>

#include <atomic>
#include <thread>

namespace kovo {
namespace {

std::atomic<std::uint32_t> figureInForce{0};

// The processors this thread may run on: the threads it starts inherit the restriction.
std::uint32_t platformFigure() {
  cpu_set_t allowed;
  CPU_ZERO(&allowed);
  if (::sched_getaffinity(0, sizeof allowed, &allowed) == 0) {
    const int count = CPU_COUNT(&allowed);
    if (count > 0) {
      return static_cast<std::uint32_t>(count);
    }
  }
  // Also a machine with more processors than the set holds.
  return std::thread::hardware_concurrency();
}

}  // namespace

std::uint32_t hardwareConcurrency() {
  const std::uint32_t figure = figureInForce.load();
  return figure != 0 ? figure : platformFigure();
}

void setHardwareConcurrency(std::uint32_t figure) {
  figureInForce.store(figure);
}

}  // namespace kovo
