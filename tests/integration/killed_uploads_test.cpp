#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>
#include <memory>
#include <random>
#include <string>
#include <thread>

#include "integration/storage_mocks.h"
#include "support/child_process.h"
#include "support/resource.h"
#include "support/seed.h"
#include "support/temp_dir.h"
#include "support/wait_until.h"

namespace kovo::test {
namespace {

using std::chrono::milliseconds;

constexpr uint64_t kMiB = 1024 * 1024;
constexpr size_t kParts = 6;
constexpr size_t kConnections = 2;
const Resource kContent(43, (kParts - 1) * 5 * kMiB + 777);

struct Protocol {
  const char* name;
  const char* option;
  const char* target;
};

class KilledUpload : public ::testing::TestWithParam<Protocol> {
 protected:
  static bool isPart(const OriginRequest& request) {
    return request.verb == "PUT" && (request.query.find("partNumber=") != std::string::npos ||
                                     request.query.find("blockid=") != std::string::npos);
  }
  static size_t parts(const std::vector<OriginRequest>& requests, size_t from = 0) {
    size_t count = 0;
    for (size_t i = from; i < requests.size(); ++i) count += isPart(requests[i]) ? 1 : 0;
    return count;
  }

  /* One upload, killed until it gets through or the kills are used up; returns how often. */
  int uploadOnce(int mostKills, std::mt19937& random) {
    StorageMock mock([](const OriginRequest& request, Responder& to) {
      if (isPart(request)) to.stallFor(milliseconds(100));
      return std::optional<Refusal>();
    });
    mock.setProvider("azure");
    const TempDir dir;
    const std::string file = dir.file("input");
    kContent.writeTo(file);
    const std::vector<std::string> command{KOVO_PROGRAM,
                                           "put",
                                           "-q",
                                           "-n",
                                           std::to_string(kConnections),
                                           GetParam().option,
                                           "--retries",
                                           "0",
                                           "--part-size",
                                           "5M",
                                           file,
                                           mock.url(GetParam().target)};
    const auto start = [&] {
      return std::make_unique<ChildProcess>(
          command, dir.file("log"), ChildProcess::Environment{{"XDG_DATA_HOME", dir.file("data")}});
    };
    const auto expectStored = [&] {
      const auto object = mock.object(GetParam().target);
      EXPECT_TRUE(object && object->size() == kContent.size() && kContent.matches(0, *object));
    };
    int kills = 0;
    size_t runs = 0;
    size_t runsWithoutParts = 0;
    int status = -1;
    std::string story;
    /* A kill may also come right behind the completion. */
    while (!mock.object(GetParam().target) && status != 0) {
      const size_t before = mock.origin().requestCount();
      const auto child = start();
      if (kills < mostKills) {
        /* Anywhere between the start and the end, however fast the machine is. */
        const size_t reached = before + random() % (kParts + 2);
        waitUntil([&] { return mock.origin().requestCount() >= reached || !child->running(); },
                  milliseconds(20000));
        std::this_thread::sleep_for(milliseconds(random() % 150));
        child->signal(SIGKILL);
      }
      status = child->wait();
      if (status != 0 && status != 128 + SIGKILL) {
        ADD_FAILURE() << status << ": " << readFile(dir.file("log"));
        return mostKills;
      }
      kills += status == 0 ? 0 : 1;
      ++runs;
      runsWithoutParts += parts(mock.origin().requests(), before) == 0 ? 1 : 0;
      story += "run " + std::to_string(runs) + " status " + std::to_string(status) +
               ", parts so far " + std::to_string(parts(mock.origin().requests())) +
               ", uploads so far " + std::to_string(mock.uploadIds().size()) + "\n";
    }
    expectStored();
    /* Parts go out under a stored upload id only, so each run that sent any left one behind. */
    EXPECT_LE(mock.uploadIds().size(), 1 + runsWithoutParts) << story;
    const size_t sent = parts(mock.origin().requests());
    const bool skipsStored = std::string(GetParam().option) == "--sync";
    EXPECT_LE(sent,
              skipsStored ? kParts + static_cast<size_t>(kills) * kConnections : runs * kParts)
        << story;
    _parts += sent;
    _killsWithGain += kills != 0 && mock.uploadIds().size() <= static_cast<size_t>(kills) ? 1 : 0;
    /* Whoever did not live to see the completion starts again: the upload it finds may be gone,
     * which one run learns. */
    for (int again = 0; status != 0 && again < 2; ++again) status = start()->wait();
    EXPECT_EQ(status, 0) << readFile(dir.file("log"));
    expectStored();
    EXPECT_TRUE(mock.complaints().empty());
    return kills;
  }

  size_t _parts = 0;
  int _killsWithGain = 0;
};

/* KOVO_KILL_SEED repeats a run, KOVO_KILL_ROUNDS makes it longer. */
TEST_P(KilledUpload, AtAnyInstantAndStartedAgainStoresTheSameObject) {
  const uint32_t seed = seedFrom("KOVO_KILL_SEED");
  SCOPED_TRACE("KOVO_KILL_SEED=" + std::to_string(seed));
  std::mt19937 random(seed);
  const int rounds = static_cast<int>(numberFrom("KOVO_KILL_ROUNDS", 10));
  int uploads = 0;
  for (int kills = 0; kills < rounds && !HasFailure(); ++uploads) {
    kills += uploadOnce(rounds - kills, random);
  }
  EXPECT_GT(_killsWithGain, 0) << "no run ever went on with an upload";
  std::cout << rounds << " kills, " << uploads << " uploads of " << kParts << " parts, " << _parts
            << " parts sent" << std::endl;
}

INSTANTIATE_TEST_SUITE_P(All, KilledUpload,
                         ::testing::Values(Protocol{"S3", "--s3", "/bucket/key"},
                                           Protocol{"Sync", "--sync", "/assets/key"}),
                         [](const auto& test) { return std::string(test.param.name); });

}  // namespace
}  // namespace kovo::test
