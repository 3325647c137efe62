#include "support/transfer_record.h"

#include "support/wait_until.h"

namespace kovo::test {

std::string TransferEvents::wholeBody(uint64_t from) const {
  std::string whole;
  for (const auto& [offset, data] : body) {
    if (offset > from + whole.size()) return "<hole>";
    if (offset < from + whole.size()) return "<overlap>";
    whole += data;
  }
  return whole;
}

TransferEvents TransferRecord::events() const {
  const std::lock_guard lock(_mutex);
  return _events;
}

kovo_async_token TransferRecord::startedToken() const {
  waitUntil([this] { return token != NOTHING_ASYNC_TOKEN; }, std::chrono::seconds(5));
  return token;
}

void TransferRecord::update(const std::function<void(TransferEvents&)>& change) {
  {
    const std::lock_guard lock(_mutex);
    change(_events);
  }
  _changed.notify_all();
}

bool TransferRecord::waitFor(const std::function<bool(const TransferEvents&)>& condition,
                             std::chrono::milliseconds timeout) const {
  std::unique_lock lock(_mutex);
  return _changed.wait_for(lock, timeout, [&] { return condition(_events); });
}

}  // namespace kovo::test
