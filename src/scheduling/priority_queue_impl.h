#pragma once

#include <boost/multi_index/hashed_index.hpp>
#include <boost/multi_index/mem_fun.hpp>
#include <boost/multi_index/ordered_index.hpp>
#include <boost/multi_index_container.hpp>
#include <functional>

#include "scheduling/priority_queue.h"

namespace kovo {

class PriorityQueueImpl : public PriorityQueue {
 public:
  void add(std::shared_ptr<WorkProvider> provider) override;
  bool remove(const std::shared_ptr<WorkProvider>& provider) override;
  std::shared_ptr<WorkProvider> find(std::uint32_t token) override;
  std::shared_ptr<WorkProvider> pop() override;
  void collect(std::vector<std::shared_ptr<WorkProvider>>& providers) override;
  std::uint32_t getAvailableWorkCount(std::size_t places, std::uint32_t enough) override;
  std::size_t size() override { return _providers.size(); }
  bool isEmpty() override { return _providers.empty(); }

 private:
  struct ByToken {};
  struct ByPriority {};
  using Providers = boost::multi_index_container<
      std::shared_ptr<WorkProvider>,
      boost::multi_index::indexed_by<
          boost::multi_index::hashed_unique<
              boost::multi_index::tag<ByToken>,
              boost::multi_index::const_mem_fun<WorkProvider, std::uint32_t,
                                                &WorkProvider::getToken>>,
          boost::multi_index::ordered_non_unique<
              boost::multi_index::tag<ByPriority>,
              boost::multi_index::const_mem_fun<WorkProvider, std::uint32_t,
                                                &WorkProvider::getPriority>,
              std::greater<std::uint32_t>>>>;

  Providers _providers;
};

}  // namespace kovo
