#pragma once

#include "support/engine_fixture.h"

namespace kovo::test {

/* Small enough that a resource of a few hundred KiB travels in many chunks. */
constexpr uint64_t kChunk = 64 * 1024;

/** Engine options with kChunk as chunk size and a fixed number of workers. */
inline TestEngineOptions smallChunks() {
  TestEngineOptions options;
  options.config.chunkSize = kChunk;
  options.config.adaptiveStrategy = 0;
  options.config.maxActiveWorkProviders = 16;
  return options;
}

/** As above, without the cache of range answers: every byte is asked of the server. */
inline TestEngineOptions smallChunksUncached() {
  TestEngineOptions options = smallChunks();
  options.config.getCacheEnabled = 0;
  return options;
}

}  // namespace kovo::test
