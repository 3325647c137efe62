// bench_put FILE URL [--s3] [--connections N] [--chunk-size BYTES] [--insecure]
//
// Uploads FILE to URL through the C interface: in one request, or as an S3 multipart upload.

#include <chrono>
#include <cstdio>

#include "bench_engine.h"

int main(int count, char** arguments) {
  using namespace kovo::bench;
  if (count < 3) {
    std::fprintf(stderr, "usage: bench_put FILE URL [options]\n");
    return 2;
  }
  EngineOptions options = engineOptions(count, arguments);
  options.chunkUploads = flag(count, arguments, "--s3");
  if (options.chunkUploads) options.serverType = KOVO_SERVER_TYPE_S3;
  const auto begin = std::chrono::steady_clock::now();
  bool complete = false;
  {
    Engine engine(options);
    kovo_async_token token = NOTHING_ASYNC_TOKEN;
    engine.started(kovoUpload(engine.handle(), KOVO_HTTP_PUT, arguments[2], arguments[1],
                              KOVO_CHUNKING_DEFAULT, 0, engine.context(), &token));
    complete = engine.waitUntilAtMost(0);
  }
  const std::chrono::duration<double> took = std::chrono::steady_clock::now() - begin;
  std::printf("%.3f s\n", took.count());
  return complete ? 0 : 1;
}
