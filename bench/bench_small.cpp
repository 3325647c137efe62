// bench_small URL-PREFIX COUNT [--folder FOLDER] [--connections N] [--active N]
//
// Downloads URL-PREFIX0 .. URL-PREFIX<COUNT-1> through the C interface, to memory or into FOLDER.
// The pool is sized with kovoSetHardwareConcurrency, so that N connections really run at once.

#include <chrono>
#include <cstdio>
#include <string>

#include "bench_engine.h"

int main(int count, char** arguments) {
  using namespace kovo::bench;
  if (count < 3) {
    std::fprintf(stderr, "usage: bench_small URL-PREFIX COUNT [options]\n");
    return 2;
  }
  const std::string prefix = arguments[1];
  const std::uint64_t objects = std::strtoull(arguments[2], nullptr, 10);
  const char* const folder = argument(count, arguments, "--folder", nullptr);
  EngineOptions options = engineOptions(count, arguments);
  options.activeTransfers = static_cast<std::uint32_t>(number(count, arguments, "--active", 64));
  // Enough waiting transfers that no worker ever finds none.
  const std::size_t inFlight = 4 * static_cast<std::size_t>(options.activeTransfers);

  const auto begin = std::chrono::steady_clock::now();
  bool complete = true;
  {
    Engine engine(options);
    for (std::uint64_t i = 0; i < objects && complete; ++i) {
      const std::string name = std::to_string(i);
      const std::string url = prefix + name;
      kovo_async_token token = NOTHING_ASYNC_TOKEN;
      if (folder != nullptr) {
        const std::string path = std::string(folder) + "/" + name;
        engine.started(kovoDownload(engine.handle(), url.c_str(), path.c_str(),
                                    KOVO_CHUNKING_DEFAULT, 0, engine.context(), &token));
      } else {
        engine.started(kovoDownloadToMemory(engine.handle(), url.c_str(), KOVO_CHUNKING_DEFAULT, 0,
                                            engine.context(), &token));
      }
      // In batches: a host that is woken for every object is a measurement of its own.
      if ((i + 1) % options.activeTransfers == 0) complete = engine.waitUntilAtMost(inFlight);
    }
    complete = engine.waitUntilAtMost(0) && complete;
  }
  const std::chrono::duration<double> took = std::chrono::steady_clock::now() - begin;
  std::printf("%.3f s, %.0f objects per second\n", took.count(),
              static_cast<double>(objects) / took.count());
  return complete ? 0 : 1;
}
