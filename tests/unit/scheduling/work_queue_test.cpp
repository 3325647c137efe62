#include <gtest/gtest.h>

#include "scheduling/work_queue_impl.h"
#include "unit/scheduling/fake_provider.h"

namespace kovo {
namespace {

using test::FakeProvider;
using Provider = std::shared_ptr<FakeProvider>;

class WorkQueueTest : public testing::Test {
 protected:
  std::unique_ptr<WorkQueue> makeQueue(std::uint32_t policy, std::uint32_t maxActive) {
    KovoSettings settings;
    settings.workQueuePolicy = policy;
    settings.maxActiveWorkProviders = maxActive;
    return createActiveQueue(settings);
  }
  Provider add(WorkQueue& queue, std::uint32_t units = 5, std::uint32_t priority = 0) {
    auto provider = std::make_shared<FakeProvider>(units, false, priority);
    provider->setToken(++_lastToken);
    queue.add(provider);
    return provider;
  }

 private:
  std::uint32_t _lastToken = 0;
};

TEST_F(WorkQueueTest, AdmitsByPriorityThenInOrderOfArrival) {
  const auto queue = makeQueue(0, 3);
  const Provider first = add(*queue, 1);
  const Provider second = add(*queue, 1);
  const Provider urgent = add(*queue, 1, 7);
  for (const Provider& expected : {urgent, first, second}) {
    EXPECT_EQ(queue->getNextWorkProvider(), expected);
    expected->setAvailable(0);
  }
  EXPECT_EQ(queue->getNextWorkProvider(), nullptr);
  EXPECT_EQ(queue->find(urgent->getToken()), urgent);
}

TEST_F(WorkQueueTest, UserPolicyServesTheEarlierAdmittedFirst) {
  const auto queue = makeQueue(0, 1);
  const Provider first = add(*queue);
  const Provider second = add(*queue);
  EXPECT_EQ(queue->getNextWorkProvider(), first);
  EXPECT_EQ(queue->getNextWorkProvider(), first);
  EXPECT_EQ(queue->getAvailableWorkCount(100), 5U) << "there is no place for the second";
  first->setAvailable(0);
  EXPECT_EQ(queue->getNextWorkProvider(), nullptr);
  EXPECT_EQ(queue->getAvailableWorkCount(100), 0U);
  queue->remove(first);
  EXPECT_EQ(queue->getAvailableWorkCount(100), 5U);
  EXPECT_EQ(queue->getAvailableWorkCount(3), 3U);
  EXPECT_EQ(queue->getNextWorkProvider(), second);
}

TEST_F(WorkQueueTest, BulkPolicyRotatesAndAdmitsInBatches) {
  const auto queue = makeQueue(1, 5);
  const Provider a = add(*queue);
  const Provider b = add(*queue);
  EXPECT_EQ(queue->getNextWorkProvider(), a);
  EXPECT_EQ(queue->getNextWorkProvider(), b);
  // No further batch while the pass still finds work.
  const Provider c = add(*queue);
  EXPECT_EQ(queue->getNextWorkProvider(), c) << "the pass had reached its end";
  EXPECT_EQ(queue->getNextWorkProvider(), a);
  EXPECT_EQ(queue->getNextWorkProvider(), b);
  EXPECT_EQ(queue->getNextWorkProvider(), c);
  for (const Provider& provider : {a, b, c}) {
    provider->setAvailable(0);
  }
  const Provider d = add(*queue);
  const Provider e = add(*queue);
  const Provider late = add(*queue);
  EXPECT_EQ(queue->getNextWorkProvider(), d);
  EXPECT_EQ(queue->getNextWorkProvider(), e);
  d->setAvailable(0);
  e->setAvailable(0);
  EXPECT_EQ(queue->getNextWorkProvider(), nullptr) << "all five places are taken";
  queue->remove(b);
  EXPECT_EQ(queue->getNextWorkProvider(), late);
}

TEST_F(WorkQueueTest, BulkPolicyKeepsItsPlaceWhenAProviderLeaves) {
  const auto queue = makeQueue(1, 3);
  const Provider a = add(*queue);
  const Provider b = add(*queue);
  const Provider c = add(*queue);
  for (int i = 0; i < 4; ++i) {
    queue->getNextWorkProvider();
  }
  queue->remove(b);  // the cursor stands on it
  EXPECT_EQ(queue->getNextWorkProvider(), c);
  EXPECT_EQ(queue->getNextWorkProvider(), a);
  queue->remove(a);
  queue->remove(c);
  EXPECT_EQ(queue->getNextWorkProvider(), nullptr);
}

}  // namespace
}  // namespace kovo
