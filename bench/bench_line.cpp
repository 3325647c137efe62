// bench_line TARGET-PORT [--delay-us MICROSECONDS] [--rate BYTES-PER-SECOND] [--drop-after BYTES]
//
// A line to a server on this machine: every byte is on its way for the delay in each direction, and
// each connection gets at most the rate, over its whole life, and breaks after about so many bytes.
// Prints its port, runs until its standard input ends, and prints the bytes it carried to clients.

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "support/delaying_relay.h"

int main(int count, char** arguments) {
  if (count < 2) {
    std::fprintf(stderr, "usage: bench_line TARGET-PORT [options]\n");
    return 2;
  }
  kovo::test::RelayOptions options;
  for (int i = 2; i + 1 < count; i += 2) {
    const unsigned long long value = std::strtoull(arguments[i + 1], nullptr, 10);
    if (std::strcmp(arguments[i], "--delay-us") == 0) {
      options.delay = std::chrono::microseconds(value);
    } else if (std::strcmp(arguments[i], "--rate") == 0) {
      options.connectionRate = value;
    } else if (std::strcmp(arguments[i], "--drop-after") == 0) {
      options.dropAfter = value;
    } else {
      std::fprintf(stderr, "unknown option %s\n", arguments[i]);
      return 2;
    }
  }
  const auto port = static_cast<uint16_t>(std::strtoul(arguments[1], nullptr, 10));
  const kovo::test::DelayingRelay relay(port, options);
  std::printf("%u\n", static_cast<unsigned>(relay.port()));
  std::fflush(stdout);
  while (std::getchar() != EOF) {
  }
  std::printf("%llu\n", static_cast<unsigned long long>(relay.bytesDown()));
  return 0;
}
