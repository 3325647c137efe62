#include <gtest/gtest.h>

#include <atomic>

#include "scheduling/thread_pool_impl.h"
#include "scheduling/work_scheduler.h"
#include "support/gate.h"

namespace kovo {
namespace {

using namespace std::chrono_literals;
using test::Gate;

TEST(ThreadPoolTest, ASmallMachineRunsOneWorkerAfterTheOther) {
  for (const std::uint32_t figure : {0U, 1U, 2U}) {
    std::atomic<int> running{0};
    std::atomic<int> most{0};
    std::atomic<int> runs{0};
    Gate done;
    ThreadPoolImpl pool(
        [&] {
          EXPECT_TRUE(WorkScheduler::isLibraryThread());
          most = std::max<int>(most, ++running);
          --running;
          if (++runs == 3) {
            done.open();
          }
        },
        {}, figure);
    for (int i = 0; i < 3; ++i) {
      pool.startWorker();
    }
    EXPECT_TRUE(done.waitFor(20s));
    EXPECT_EQ(most, 1);
  }
  EXPECT_FALSE(WorkScheduler::isLibraryThread());
}

TEST(ThreadPoolTest, DestructionWaitsForRunningRunsAndDropsQueuedOnes) {
  std::atomic<int> started{0};
  std::atomic<int> ended{0};
  Gate bothRun;
  Gate letGo;
  std::thread opener;
  {
    ThreadPoolImpl pool(
        [&] {
          if (++started == 2) {
            bothRun.open();
          }
          letGo.waitFor(20s);
          ++ended;
        },
        {}, 3);
    for (int i = 0; i < 5; ++i) {
      pool.startWorker();
    }
    ASSERT_TRUE(bothRun.waitFor(20s));
    opener = std::thread([&] { letGo.open(); });
  }
  opener.join();
  EXPECT_EQ(ended, started);
  EXPECT_LE(started, 5);
}

TEST(ThreadPoolTest, AnExceptionEndsOnlyItsRun) {
  std::atomic<int> runs{0};
  Gate second;
  ThreadPoolImpl pool(
      [&] {
        if (++runs == 2) {
          second.open();
        }
        throw 1;
      },
      {}, 2);
  pool.startWorker();
  pool.startWorker();
  EXPECT_TRUE(second.waitFor(20s));
}

}  // namespace
}  // namespace kovo
