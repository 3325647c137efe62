#include "platform/linux/http_session_pool.h"

#include <algorithm>
#include <chrono>
#include <utility>

namespace kovo {

namespace {

using SteadyClock = std::chrono::steady_clock;

// Servers commonly close a connection after 60 to 75 s without a request; later ones are seldom of
// use, and each costs both sides a descriptor.
constexpr std::chrono::seconds kLongestIdle(60);
// More than any engine's workers.
constexpr std::size_t kMostIdle = 64;

}  // namespace

void HttpSessionPool::retain() {
  ScopedLock held(_lock);
  ++_engines;
}

void HttpSessionPool::release() {
  Sessions closing;
  std::shared_ptr<CurlShare> share;
  {
    ScopedLock held(_lock);
    if (_engines == 0 || --_engines > 0) {
      return;
    }
    closing.swap(_idle);
    share.swap(_share);
  }
  closing.clear();
}

HttpSessionPool::Sessions::iterator HttpSessionPool::find(const HttpSessionPolicy& policy,
                                                          const std::string& origin) {
  auto chosen = _idle.end();
  for (auto it = _idle.end(); it != _idle.begin();) {
    --it;
    if ((*it)->policy() == policy) {
      chosen = it;  // failing a connected one, the one that has been idle longest
      if ((*it)->knowsOrigin(origin)) {
        break;
      }
    }
  }
  return chosen;
}

std::unique_ptr<HttpSession> HttpSessionPool::take(const HttpSessionPolicy& policy,
                                                   const std::string& origin) {
  Sessions closing;
  std::shared_ptr<CurlShare> share;
  while (!share) {
    std::unique_ptr<HttpSession> session;
    {
      ScopedLock held(_lock);
      if (closing.empty()) {
        takeExpired(closing);
      }
      const auto chosen = find(policy, origin);
      if (chosen == _idle.end()) {
        if (!_share) {
          _share = std::make_shared<CurlShare>();
        }
        share = _share;
        break;
      }
      session = std::move(*chosen);
      _idle.erase(chosen);
    }
    if (!session->holdsUnaskedBytes()) {
      session->noteOrigin(origin);
      return session;
    }
    closing.push_back(std::move(session));
  }
  auto session = std::make_unique<HttpSession>(std::move(share), policy);
  session->noteOrigin(origin);
  return session;
}

void HttpSessionPool::give(std::unique_ptr<HttpSession> session) noexcept {
  Sessions expired;
  try {
    ScopedLock held(_lock);
    takeExpired(expired);
    if (_engines > 0 && _idle.size() < kMostIdle) {
      session->idleSince = SteadyClock::now();
      _idle.push_back(std::move(session));
    }
  } catch (...) {
    // Without memory for the list the session is closed instead.
  }
}

void HttpSessionPool::takeExpired(Sessions& expired) {
  const auto oldest = SteadyClock::now() - kLongestIdle;
  const auto kept = std::find_if(_idle.begin(), _idle.end(), [oldest](const auto& session) {
    return session->idleSince > oldest;
  });
  if (kept != _idle.begin()) {
    expired.assign(std::make_move_iterator(_idle.begin()), std::make_move_iterator(kept));
    _idle.erase(_idle.begin(), kept);
  }
}

}  // namespace kovo
