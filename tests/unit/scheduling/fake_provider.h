#pragma once

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "core/null_work.h"
#include "core/work_provider.h"
#include "support/gate.h"

namespace kovo::test {

class FakeProvider;

/** A unit that runs its provider's body. */
class FakeWork : public NullWork {
 public:
  FakeWork(std::function<void()> body, bool timedOut)
      : _body(std::move(body)), _timedOut(timedOut) {}
  void run() override {
    if (_body) {
      _body();
    }
    NullWork::run();
  }
  bool isTimedOut() const override { return _timedOut; }

 private:
  const std::function<void()> _body;
  const bool _timedOut;
};

/**
 * Hands out a number of units and then ends, keeping to the contract of WorkProvider. The callbacks
 * it makes are recorded as words: "completed", "cancelled", "abandoned", "paused".
 */
class FakeProvider : public WorkProvider {
 public:
  explicit FakeProvider(std::uint32_t units = 1, bool serial = false, std::uint32_t priority = 0)
      : _serial(serial), _priority(priority), _unitsLeft(units) {}

  /* Set before it is submitted. */
  std::function<void()> body;
  std::function<void(const std::string&)> onNotification;
  std::uint32_t unitsAtOnce = 1000;
  bool timesOut = false;

  std::vector<std::string> words() const {
    const std::lock_guard guard(_mutex);
    return _delivered;
  }
  bool waitForWord(const std::string& word) const {
    std::unique_lock guard(_mutex);
    return _news.wait_for(guard, std::chrono::seconds(20), [&] {
      return std::find(_delivered.begin(), _delivered.end(), word) != _delivered.end();
    });
  }
  void setAvailable(std::uint32_t units) { _unitsLeft = units; }

  Work* getNextWork() override {
    const std::lock_guard guard(_mutex);
    if (_finished || ((_cancelled || _abandoned) && !_active.empty())) {
      return nullptr;
    }
    if (_cancelled || _abandoned) {
      _active.push_back(std::make_unique<NullWork>());
    } else if (_pausing || _unitsLeft == 0 || _active.size() >= unitsAtOnce) {
      return nullptr;
    } else {
      --_unitsLeft;
      _active.push_back(std::make_unique<FakeWork>(body, timesOut));
    }
    return _active.back().get();
  }
  bool onFinish(Work* work) override {
    const std::lock_guard guard(_mutex);
    std::erase_if(_active, [work](const auto& held) { return held.get() == work; });
    if (!_active.empty()) {
      return false;
    }
    if (_cancelled || _abandoned || _unitsLeft == 0) {
      _finished = true;
      _pending.push_back(_cancelled ? "cancelled" : _abandoned ? "abandoned" : "completed");
      return true;
    }
    if (_pausing) {
      drained();
      return true;
    }
    return false;
  }
  bool isFinished() const override {
    const std::lock_guard guard(_mutex);
    return _finished;
  }
  kovo_error cancel(bool /*dueToError*/) override {
    const std::lock_guard guard(_mutex);
    if (_cancelled) {
      return KOVO_ERROR_CANCELLED;
    }
    _cancelled = true;
    _stopped.open();
    return KOVO_ERROR_NONE;
  }
  bool pause(bool restartWhenDrained) override {
    const std::lock_guard guard(_mutex);
    if (!_pausing) {
      _pausing = true;
      _drained = false;
      _restart = restartWhenDrained;
      return true;
    }
    if (!restartWhenDrained && _restart) {
      _restart = false;
      if (_drained) {
        _pending.push_back("paused");
      }
    }
    return false;
  }
  bool isCancelled() const override {
    const std::lock_guard guard(_mutex);
    return _cancelled || _abandoned;
  }
  bool isPausing() const override {
    const std::lock_guard guard(_mutex);
    return _pausing;
  }
  void clearPausing() override {
    const std::lock_guard guard(_mutex);
    _pausing = false;
  }
  std::uint32_t getAvailableWorkCount() const override {
    const std::lock_guard guard(_mutex);
    if (_finished) {
      return 0;
    }
    if (_pausing || _cancelled || _abandoned) {
      return _active.empty() ? 1 : 0;
    }
    return std::min<std::uint32_t>(_unitsLeft,
                                   unitsAtOnce - static_cast<std::uint32_t>(_active.size()));
  }
  std::uint32_t getToken() const override { return _token; }
  void setToken(std::uint32_t token) override { _token = token; }
  bool isSerial() const override { return _serial; }
  std::uint32_t getPriority() const override { return _priority; }
  bool shouldRestartWhenDrained() const override {
    const std::lock_guard guard(_mutex);
    return _restart;
  }
  void monitor(std::uint32_t, const void*, std::size_t) override {}
  void restartOnceDrained() override {
    const std::lock_guard guard(_mutex);
    _restart = true;
    std::erase(_pending, "paused");
  }
  std::size_t getActiveWorkCount() const override {
    const std::lock_guard guard(_mutex);
    return _active.size();
  }
  void onPauseDrained() override {
    const std::lock_guard guard(_mutex);
    drained();
  }
  void abandon() override {
    const std::lock_guard guard(_mutex);
    _abandoned = true;
    _stopped.open();
  }
  void deliverNotifications() override {
    for (;;) {
      std::string word;
      {
        const std::lock_guard guard(_mutex);
        if (_pending.empty()) {
          return;
        }
        word = _pending.front();
        _pending.pop_front();
      }
      if (onNotification) {
        onNotification(word);
      }
      const std::lock_guard guard(_mutex);
      _delivered.push_back(word);
      _news.notify_all();
    }
  }

  /** For a body that stalls as a request does: until it is let go, cancelled or abandoned. */
  void stall() const { _stopped.waitFor(std::chrono::seconds(60)); }
  void letGo() { _stopped.open(); }

 private:
  void drained() {
    _drained = true;
    if (!_restart) {
      _pending.push_back("paused");
    }
  }

  const bool _serial;
  const std::uint32_t _priority;
  Gate _stopped;
  std::atomic<std::uint32_t> _token{0};
  std::atomic<std::uint32_t> _unitsLeft;
  mutable std::mutex _mutex;
  mutable std::condition_variable _news;
  std::vector<std::unique_ptr<Work>> _active;
  std::deque<std::string> _pending;
  std::vector<std::string> _delivered;
  bool _cancelled = false;
  bool _abandoned = false;
  bool _pausing = false;
  bool _restart = false;
  bool _drained = false;
  bool _finished = false;
};

}  // namespace kovo::test
