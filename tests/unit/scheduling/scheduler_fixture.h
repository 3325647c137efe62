#pragma once

#include <gtest/gtest.h>

#include <algorithm>

#include "scheduling/work_scheduler_impl.h"
#include "support/gate.h"
#include "support/log_capture.h"
#include "support/manual_clock.h"
#include "support/wait_until.h"
#include "unit/scheduling/fake_provider.h"
#include "unit/scheduling/fake_stats_aggregator.h"

namespace kovo::test {

/** Aims for what a test says. */
class FakeStrategy : public KOVOStrategy {
 public:
  using KOVOStrategy::KOVOStrategy;
  std::atomic<std::uint32_t> target{16};
  std::atomic<std::uint32_t> limit{16};

  std::uint32_t getTargetThreadCount() override { return target; }
  std::uint32_t getMaximumThreadCount() override { return limit; }
  std::uint32_t getMonitorKind() override { return 2; }
  void fillMonitorRecord(void*, std::uint64_t) override {}
  void onWorkFinished(bool /*timedOut*/) override {}
  void setMaximumThreadCount(std::uint32_t count) override { limit = count; }
};

class TestScheduler : public WorkSchedulerImpl {
 public:
  using WorkSchedulerImpl::WorkSchedulerImpl;
  ~TestScheduler() override { shutDown(); }
  std::uint32_t workerCount() const { return _workerCount; }
  void setWorkerCount(std::uint32_t count) { _workerCount = count; }
  void setLastToken(std::uint32_t token) {
    const ScopedLock lock(_providerLock);
    _lastToken = token;
  }
};

class SchedulerTest : public testing::Test {
 protected:
  using Provider = std::shared_ptr<FakeProvider>;

  /** A pool of this many threads. */
  void start(std::uint32_t threads) {
    scheduler = std::make_unique<TestScheduler>(strategy, settings, callbacks, threads + 1);
  }
  Provider make(std::uint32_t units = 1, bool serial = false) {
    return std::make_shared<FakeProvider>(units, serial);
  }
  /** Submits a provider whose units stall; returns when one runs. */
  Provider submitStalling(std::uint32_t units = 1) {
    auto provider = make(units);
    auto running = std::make_shared<Gate>();
    provider->body = [raw = provider.get(), running] {
      running->open();
      raw->stall();
    };
    scheduler->submit(provider);
    EXPECT_TRUE(running->waitFor(std::chrono::seconds(20)));
    return provider;
  }
  Provider submit(Provider provider) {
    scheduler->submit(provider);
    return provider;
  }
  static std::size_t finals(const FakeProvider& provider) {
    const auto words = provider.words();
    return words.size() -
           static_cast<std::size_t>(std::count(words.begin(), words.end(), "paused"));
  }

  KovoSettings settings;
  CallbackTable callbacks;
  FakeStatsAggregator stats;
  ManualClock clock;
  FakeStrategy strategy{settings, stats, clock};
  std::unique_ptr<TestScheduler> scheduler;
};

using Words = std::vector<std::string>;

}  // namespace kovo::test
