#include <future>
#include <utility>

#include "unit/scheduling/scheduler_fixture.h"

namespace kovo::test {
namespace {

using namespace std::chrono_literals;

class WorkSchedulerTest : public SchedulerTest {};

TEST_F(WorkSchedulerTest, SerialAndChunkedProvidersTakeTurns) {
  strategy.limit = 0;  // this thread is the only worker
  start(1);
  const Provider serial = submit(make(5, true));
  const Provider chunked = submit(make(5));
  std::vector<Work*> units;
  for (const Provider& expected : {serial, chunked, serial, chunked}) {
    units.push_back(scheduler->getWork());
    ASSERT_NE(units.back(), nullptr);
    EXPECT_EQ(units.back()->getParent(), expected);
  }
  scheduler->setWorkerCount(4);
  for (Work* unit : units) {
    scheduler->onFinish(unit);
  }
  EXPECT_EQ(scheduler->workerCount(), 2U) << "no more workers end than down to the lower limit";
}

TEST_F(WorkSchedulerTest, SubmitStartsAsManyWorkersAsThereIsWorkAndTheTargetAllows) {
  strategy.target = 4;
  strategy.limit = 8;
  start(1);
  const LogCapture log(KOVO_LOG_INFO);
  const Provider provider = submitStalling(10);
  EXPECT_EQ(scheduler->workerCount(), 4U);
  EXPECT_EQ(log.messages().at(0), "Adjust Worker Count: current: 0 target 4 adjusted: 4");
  scheduler->setWorkerCount(6);
  const Provider second = submit(make());
  EXPECT_EQ(scheduler->workerCount(), 6U);
  EXPECT_EQ(log.messages().at(1), "Adjust Worker Count: current: 6 target 4 adjusted: 5");
  scheduler->setWorkerCount(4);
  provider->letGo();
  EXPECT_TRUE(provider->waitForWord("completed"));
  EXPECT_TRUE(second->waitForWord("completed"));
  EXPECT_TRUE(waitUntil([&] { return scheduler->workerCount() == 0; }, 20s));
}

TEST_F(WorkSchedulerTest, ATimedOutUnitEndsItsWorkerDownToTheLowerLimit) {
  strategy.limit = 0;
  start(1);
  const Provider provider = make(3);
  provider->timesOut = true;
  submit(provider);
  scheduler->setWorkerCount(3);
  strategy.limit = 3;
  EXPECT_FALSE(scheduler->onFinish(scheduler->getWork()));
  EXPECT_EQ(scheduler->workerCount(), 2U);
  strategy.limit = 2;
  EXPECT_TRUE(scheduler->onFinish(scheduler->getWork()));
  EXPECT_EQ(scheduler->workerCount(), 2U);
}

TEST_F(WorkSchedulerTest, TokensAreNeverZeroNorGivenTwice) {
  strategy.limit = 0;
  start(1);
  const Provider first = make();
  EXPECT_EQ(first->getToken(), 0U);
  EXPECT_EQ(scheduler->submit(first), 1U);
  scheduler->setLastToken(0xFFFFFFFE);
  EXPECT_EQ(scheduler->submit(make()), 0xFFFFFFFF);
  EXPECT_EQ(scheduler->submit(make()), 2U) << "1 still names the first one";
  EXPECT_EQ(scheduler->findWorkProvider(1), first);
  EXPECT_EQ(scheduler->findWorkProvider(3), nullptr);
}

TEST_F(WorkSchedulerTest, TheWatchdogReplacesWorkersThatWereLost) {
  const LogCapture log(KOVO_LOG_ERROR);
  strategy.limit = 0;
  start(1);
  const Provider provider = submit(make());
  strategy.limit = 16;
  ASSERT_TRUE(provider->waitForWord("completed"));  // within a second, when its timer fires
  EXPECT_EQ(log.messages().at(0),
            "WorkSchedulerImpl.onTimerCallback No worker threads running, but work provider count "
            "is: 1");
}

TEST_F(WorkSchedulerTest, ASlowCallbackStallsNobodyAndMayCallEverything) {
  start(2);
  Gate release;
  const Provider slow = make();
  const Provider other = make();
  slow->onNotification = [&](const std::string&) {
    EXPECT_TRUE(WorkScheduler::isLibraryThread());
    EXPECT_EQ(scheduler->findWorkProvider(slow->getToken()), nullptr);
    EXPECT_NE(scheduler->submit(other), 0U);
    EXPECT_EQ(scheduler->pause(slow, false), KOVO_ERROR_INVALID_PARAMETERS);
    EXPECT_EQ(scheduler->resume(slow), 0U);
    release.waitFor(20s);
  };
  const LogCapture log(KOVO_LOG_WARN);
  submit(slow);
  EXPECT_TRUE(other->waitForWord("completed"));
  EXPECT_TRUE(slow->words().empty());
  release.open();
  EXPECT_TRUE(slow->waitForWord("completed"));
  const auto lines = log.messages();
  ASSERT_EQ(lines.size(), 1U);
  EXPECT_EQ(lines[0],
            "WorkSchedulerImpl.removeWorkProvider Work Provider with token 1 could not be found");
}

// The logging callback, too, runs while no lock is held that another thread needs to come back.
TEST_F(WorkSchedulerTest, MessagesAreLoggedWithoutALock) {
  static WorkScheduler* target = nullptr;
  static std::atomic<int> answered{0};
  const std::uint32_t level = getLogLevel();
  setLogLevel(KOVO_LOG_INFO);
  registerLoggingCallback(
      [](std::uint32_t, const char*, const char*, const char*, std::uint32_t, void*) {
        auto answer = std::async(std::launch::async, [] { target->findWorkProvider(1); });
        EXPECT_EQ(answer.wait_for(10s), std::future_status::ready);
        ++answered;
      },
      nullptr);
  start(1);
  target = scheduler.get();
  const Provider provider = submit(make(3));
  EXPECT_TRUE(provider->waitForWord("completed"));
  scheduler.reset();
  registerLoggingCallback(nullptr, nullptr);
  setLogLevel(level);
  EXPECT_GE(answered, 3);
}

/** Lets a test act just after a worker has found nothing. */
class InterruptedScheduler : public TestScheduler {
 public:
  using TestScheduler::TestScheduler;
  ~InterruptedScheduler() override { shutDown(); }
  std::function<void()> afterFindingNothing;
  Work* getWork() override {
    Work* const work = TestScheduler::getWork();
    if (work == nullptr && afterFindingNothing) {
      std::exchange(afterFindingNothing, nullptr)();
    }
    return work;
  }
};

// A worker about to end and a submit that still counts on it.
TEST_F(WorkSchedulerTest, ASubmitBetweenSearchAndEndOfTheOnlyWorkerIsServed) {
  strategy.limit = 1;
  InterruptedScheduler interrupted(strategy, settings, callbacks, 2);
  const Provider late = make();
  interrupted.afterFindingNothing = [&] { interrupted.submit(late); };
  const LogCapture log(KOVO_LOG_ERROR);
  interrupted.submit(make());
  EXPECT_TRUE(late->waitForWord("completed"));
  EXPECT_EQ(log.messages(), Words{}) << "the watchdog must not be what saved it";
}

TEST_F(WorkSchedulerTest, NoWakeUpIsLost) {
  strategy.limit = 1;
  start(1);
  const LogCapture log(KOVO_LOG_ERROR);
  std::vector<std::thread> clients;
  std::atomic<int> lost{0};
  for (int i = 0; i < 2; ++i) {
    clients.emplace_back([&] {
      for (int round = 0; round < 3000 && lost == 0; ++round) {
        const Provider provider = submit(make(1, round % 2 == 0));
        lost += provider->waitForWord("completed") ? 0 : 1;
      }
    });
  }
  for (std::thread& client : clients) {
    client.join();
  }
  EXPECT_EQ(lost, 0);
  EXPECT_EQ(log.messages(), Words{});
}

TEST_F(WorkSchedulerTest, ThousandsOfWaitingProvidersAllRun) {
  start(4);
  std::vector<Provider> providers;
  for (int i = 0; i < 5000; ++i) {
    providers.push_back(submit(make(1, i % 3 == 0)));
  }
  for (const Provider& provider : providers) {
    ASSERT_TRUE(provider->waitForWord("completed"));
  }
  EXPECT_TRUE(waitUntil([&] { return scheduler->workerCount() == 0; }, 20s));
}

}  // namespace
}  // namespace kovo::test
