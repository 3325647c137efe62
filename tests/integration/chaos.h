#pragma once

#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <random>

#include "integration/storage_mocks.h"
#include "support/fault_origin.h"
#include "support/serve_resource.h"

namespace kovo::test {

/** Servers that misbehave at random: drops, stalls, refusals, short, shifted, slow and meaningless
 * answers. Thread-safe. */
class Chaos {
 public:
  /** Of a hundred requests so many meet a fault. */
  Chaos(uint32_t seed, uint32_t percent) : _random(seed), _percent(percent) {}

  /** Serves what resourceOf says for a request. */
  OriginHandler downloads(std::function<Resource(const OriginRequest&)> resourceOf);
  /** For a StorageMock that reads bodies later. */
  StorageMock::Intercept uploads();

 private:
  uint32_t draw(uint32_t below);
  /* Faults any answer can have; false when this request is to be answered well. */
  bool disturb(Responder& to, uint32_t kind);

  std::mutex _mutex;
  std::mt19937 _random; /* guarded by _mutex */
  const uint32_t _percent;
};

}  // namespace kovo::test
