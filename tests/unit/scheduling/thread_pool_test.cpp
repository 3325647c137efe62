#include <gtest/gtest.h>

#include <atomic>
#include <mutex>

#include "log/deferred_log.h"
#include "scheduling/control_thread.h"
#include "scheduling/thread_pool_impl.h"
#include "scheduling/work_scheduler.h"
#include "support/gate.h"
#include "support/log_capture.h"
#include "unit/scheduling/fake_provider.h"

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

TEST(ControlThreadTest, AttendsInOrderAndTicksWhileAsked) {
  const std::vector<std::shared_ptr<WorkProvider>> given = {std::make_shared<test::FakeProvider>(),
                                                            std::make_shared<test::FakeProvider>()};
  std::mutex mutex;
  std::vector<std::shared_ptr<WorkProvider>> seen;
  Gate all;
  Gate ticked;
  ControlThread control(
      [&](const std::shared_ptr<WorkProvider>& provider) {
        const std::lock_guard guard(mutex);
        seen.push_back(provider);
        if (seen.size() == 2) {
          all.open();
        }
      },
      [&] {
        ticked.open();
        return false;
      });
  control.keepTicking();
  control.attend(given[0]);
  control.attend(given[1]);
  ASSERT_TRUE(all.waitFor(20s));
  EXPECT_TRUE(ticked.waitFor(20s));
  control.stop();
  EXPECT_EQ(seen, given);
  control.attend(given[0]);  // no longer kept
  seen.clear();
  EXPECT_EQ(given[0].use_count(), 1);
}

TEST(DeferredLogTest, EmitsInOrderWhenTheOutermostScopeEnds) {
  const test::LogCapture log(KOVO_LOG_INFO);
  {
    const DeferredLog outer;
    {
      const DeferredLog inner;
      KOVO_LOG(KOVO_LOG_INFO, "function", "number %d", 1);
    }
    KOVO_LOG(KOVO_LOG_INFO, "function", "number %d", 2);
    KOVO_LOG(KOVO_LOG_TRACE, "function", "not wanted");
    EXPECT_TRUE(log.messages().empty());
  }
  EXPECT_EQ(log.messages(), (std::vector<std::string>{"number 1", "number 2"}));
  KOVO_LOG(KOVO_LOG_INFO, "function", "number 3");
  EXPECT_EQ(log.messages().size(), 3U);
}

}  // namespace
}  // namespace kovo
