// bench_many URL FOLDER ENGINES DOWNLOADS [--connections N]
//
// Downloads URL DOWNLOADS times by each of ENGINES engines at once, each to a file of its own in
// FOLDER.

#include <chrono>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "bench_engine.h"

int main(int count, char** arguments) {
  using namespace kovo::bench;
  if (count < 5) {
    std::fprintf(stderr, "usage: bench_many URL FOLDER ENGINES DOWNLOADS [options]\n");
    return 2;
  }
  const std::uint64_t engineCount = std::strtoull(arguments[3], nullptr, 10);
  const std::uint64_t downloads = std::strtoull(arguments[4], nullptr, 10);
  const auto begin = std::chrono::steady_clock::now();
  bool complete = true;
  {
    std::vector<std::unique_ptr<Engine>> engines;
    for (std::uint64_t i = 0; i < engineCount; ++i) {
      engines.push_back(std::make_unique<Engine>(engineOptions(count, arguments)));
    }
    for (std::uint64_t j = 0; j < downloads; ++j) {
      for (std::uint64_t i = 0; i < engineCount; ++i) {
        const std::string path =
            std::string(arguments[2]) + "/" + std::to_string(i) + "-" + std::to_string(j);
        kovo_async_token token = NOTHING_ASYNC_TOKEN;
        engines[i]->started(kovoDownload(engines[i]->handle(), arguments[1], path.c_str(),
                                         KOVO_CHUNKING_DEFAULT, 0, engines[i]->context(), &token));
      }
    }
    for (const auto& engine : engines) complete = engine->waitUntilAtMost(0) && complete;
  }
  const std::chrono::duration<double> took = std::chrono::steady_clock::now() - begin;
  std::printf("%.3f s\n", took.count());
  return complete ? 0 : 1;
}
