#include <random>

#include "unit/scheduling/scheduler_fixture.h"

namespace kovo::test {
namespace {

using namespace std::chrono_literals;

class SchedulerControlTest : public SchedulerTest {};

TEST_F(SchedulerControlTest, WhatLeavesAQueueLetsTheNextOneIn) {
  settings.maxActiveWorkProviders = 1;
  start(2);
  const Provider first = submitStalling(1);
  const Provider second = submit(make());
  EXPECT_TRUE(waitUntil([&] { return scheduler->workerCount() == 1; }, 20s))
      << "nobody spins for work that cannot be admitted";
  EXPECT_TRUE(second->words().empty());
  EXPECT_EQ(scheduler->pause(first, false), KOVO_ERROR_NONE);
  EXPECT_TRUE(second->waitForWord("completed"));
  first->letGo();
  EXPECT_TRUE(first->waitForWord("completed"));
}

TEST_F(SchedulerControlTest, DestructionEndsEverythingOnceAndReleasesThePaused) {
  start(2);
  const Provider running = submitStalling();
  const Provider draining = submitStalling();
  const Provider restarting = submit(make(2, true));
  const Provider queued = submit(make(2));
  const Provider idle = submit(make(2));
  scheduler->pause(draining, false);
  scheduler->pause(restarting, true);
  scheduler->pause(idle, false);
  EXPECT_TRUE(idle->waitForWord("paused"));
  const Provider refused = make();
  queued->onNotification = [&](const std::string&) {
    EXPECT_TRUE(WorkScheduler::isLibraryThread());
    EXPECT_EQ(scheduler->submit(refused), 0U);
    EXPECT_EQ(scheduler->pause(idle, false), KOVO_ERROR_CANCELLED);
    EXPECT_EQ(scheduler->resume(idle), 0U);
    EXPECT_EQ(scheduler->cancel(queued), KOVO_ERROR_NONE);
  };
  scheduler->shutDown();
  for (const Provider& provider : {running, draining, restarting, queued}) {
    EXPECT_EQ(provider->words(), Words{"abandoned"});
    EXPECT_EQ(scheduler->findWorkProvider(provider->getToken()), nullptr);
  }
  EXPECT_EQ(idle->words(), Words{"paused"});
  EXPECT_FALSE(WorkScheduler::isLibraryThread());
  EXPECT_EQ(scheduler->submit(refused), 0U);
  scheduler.reset();
  for (const Provider& provider : {running, draining, restarting, queued, idle}) {
    EXPECT_EQ(provider.use_count(), 2) << "the variable and the list of this loop";
  }
}

TEST_F(SchedulerControlTest, DestructionWaitsForACallbackUnderWay) {
  start(1);
  Gate inside;
  std::atomic<bool> returned{false};
  const Provider provider = make();
  provider->onNotification = [&](const std::string&) {
    inside.open();
    waitUntil([&] { return scheduler->submit(make()) == 0; }, 20s);  // until it shuts down
    returned = true;
  };
  submit(provider);
  ASSERT_TRUE(inside.waitFor(20s));
  scheduler->shutDown();
  EXPECT_TRUE(returned);
  EXPECT_EQ(provider->words(), Words{"completed"});
}

// Whatever order pauses, resumes, cancels and the end come in, every transfer ends exactly once.
TEST_F(SchedulerControlTest, RacesLoseNothing) {
  settings.maxActiveWorkProviders = 3;
  for (std::uint32_t round = 0; round < 30; ++round) {
    settings.workQueuePolicy = round % 2;
    start(1 + round % 4);
    std::vector<Provider> providers;
    for (int i = 0; i < 24; ++i) {
      const Provider provider = make(30, i % 4 == 0);
      provider->unitsAtOnce = 3;
      provider->body = [] { std::this_thread::yield(); };
      providers.push_back(submit(provider));
    }
    std::vector<std::thread> clients;
    for (std::uint32_t seed = 0; seed < 3; ++seed) {
      clients.emplace_back([&, seed] {
        std::minstd_rand random(round * 3 + seed + 1);
        for (int i = 0; i < 300; ++i) {
          const Provider& provider = providers[random() % providers.size()];
          switch (random() % 8) {
            case 0:
              scheduler->pause(provider, true);
              break;
            case 1:
            case 2:
              scheduler->pause(provider, false);
              break;
            case 3:
              if (random() % 8 == 0) {
                scheduler->cancel(provider);
              }
              break;
            default:
              if (scheduler->findPausedWorkProvider(provider->getToken())) {
                scheduler->resume(provider);
              }
          }
        }
      });
    }
    for (std::thread& client : clients) {
      client.join();
    }
    const bool destroysEarly = round % 3 == 2;
    if (!destroysEarly) {
      for (const Provider& provider : providers) {
        const auto ended = [&] {
          if (scheduler->findPausedWorkProvider(provider->getToken())) {
            scheduler->resume(provider);
          }
          return finals(*provider) == 1;
        };
        ASSERT_TRUE(waitUntil(ended, 20s)) << "round " << round;
      }
    }
    std::vector<Provider> idle;
    for (const Provider& provider : providers) {
      if (scheduler->findPausedWorkProvider(provider->getToken())) {
        idle.push_back(provider);
      }
    }
    scheduler.reset();
    for (const Provider& provider : providers) {
      EXPECT_LE(finals(*provider), 1U);
      if (std::find(idle.begin(), idle.end(), provider) == idle.end()) {
        EXPECT_EQ(finals(*provider), 1U) << "round " << round;
      }
    }
  }
}

}  // namespace
}  // namespace kovo::test
