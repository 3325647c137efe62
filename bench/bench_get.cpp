// bench_get URL FILE [--connections N] [--chunk-size BYTES] [--cache] [--adaptive] [--insecure]
//
// Downloads URL into FILE through the C interface. The pool is sized with
// kovoSetHardwareConcurrency, so that N connections really run at once.

#include <chrono>
#include <cstdio>

#include "bench_engine.h"

int main(int count, char** arguments) {
  using namespace kovo::bench;
  if (count < 3) {
    std::fprintf(stderr, "usage: bench_get URL FILE [options]\n");
    return 2;
  }
  const auto begin = std::chrono::steady_clock::now();
  bool complete = false;
  {
    Engine engine(engineOptions(count, arguments));
    kovo_async_token token = NOTHING_ASYNC_TOKEN;
    engine.started(kovoDownload(engine.handle(), arguments[1], arguments[2], KOVO_CHUNKING_DEFAULT,
                                0, engine.context(), &token));
    complete = engine.waitUntilAtMost(0);
  }
  const std::chrono::duration<double> took = std::chrono::steady_clock::now() - begin;
  std::printf("%.3f s\n", took.count());
  return complete ? 0 : 1;
}
