#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <random>
#include <thread>

#include "support/child_process.h"
#include "support/fault_origin.h"
#include "support/serve_resource.h"
#include "support/temp_dir.h"

namespace kovo::test {
namespace {

using std::chrono::milliseconds;

constexpr uint64_t kChunkSize = 64 * 1024;

/* Killed over and over, a program that is started again gets there, and what it fetches twice was
 * in flight. KOVO_KILL_SEED repeats a run, KOVO_KILL_ROUNDS makes it longer. */
TEST(Killed, AtAnyInstantAndStartedAgainLosesOnlyWhatWasInFlight) {
  const char* seedText = std::getenv("KOVO_KILL_SEED");
  const char* roundsText = std::getenv("KOVO_KILL_ROUNDS");
  const uint32_t seed =
      seedText != nullptr ? static_cast<uint32_t>(std::atoll(seedText)) : std::random_device{}();
  const int rounds = roundsText != nullptr ? std::atoi(roundsText) : 25;
  SCOPED_TRACE("KOVO_KILL_SEED=" + std::to_string(seed));
  std::mt19937 random(seed);

  constexpr uint64_t kConnections = 4; /* and one chunk that waits to be written */
  const Resource resource(41, 80 * kChunkSize + 5);
  FaultOriginOptions limited;
  limited.connectionRate = 1024 * 1024;
  TempDir dir;
  int kills = 0;
  int killsWithGain = 0;
  int file = 0;
  while (kills < rounds) {
    FaultOrigin origin(serveResource(resource), limited);
    const std::string out = dir.file("out" + std::to_string(file++));
    std::vector<std::string> command{KOVO_PROGRAM,   "get",   "-q", "-n", "4",
                                     "--chunk-size", "65536", "-o", out,  origin.url("/f")};
    if (file % 2 == 0) command.push_back("--cache");
    const ChildProcess::Environment environment{{"XDG_DATA_HOME", dir.file("data")}};
    uint64_t allowed = resource.size();
    for (bool done = false; !done;) {
      ChildProcess child(command, dir.file("log"), environment);
      if (kills < rounds) {
        std::this_thread::sleep_for(milliseconds(random() % 1000));
        child.signal(SIGKILL);
      }
      const int status = child.wait();
      /* A file under its final name is complete, also when the kill came right behind it. */
      done = std::filesystem::exists(out);
      ASSERT_TRUE(status == 128 + SIGKILL || (status == 0 && done)) << readFile(dir.file("log"));
      if (status == 0) continue;
      ++kills;
      allowed += (kConnections + 1) * kChunkSize;
    }
    EXPECT_EQ(resource.differenceTo(out), "");
    EXPECT_FALSE(std::filesystem::exists(out + "._kstmp"));
    uint64_t fetched = 0;
    size_t heads = 0;
    for (const OriginRequest& request : origin.requests()) {
      heads += request.verb == "HEAD" ? 1 : 0;
      const auto range = request.range();
      if (request.verb == "GET") {
        const uint64_t last = range->last.value_or(resource.size() - 1);
        fetched += std::min(last + 1, resource.size()) - range->first;
      }
    }
    killsWithGain += heads != 0 ? 1 : 0;
    EXPECT_LE(fetched, allowed);
  }
  EXPECT_GT(killsWithGain, 0) << "no run ever resumed";
}

}  // namespace
}  // namespace kovo::test
