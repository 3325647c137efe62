#pragma once

#include <boost/noncopyable.hpp>
#include <memory>
#include <string>
#include <vector>

#include "core/lock.h"
#include "platform/linux/curl_share.h"
#include "platform/linux/http_session.h"

namespace kovo {

// The process's sessions that no exchange uses at the moment. They are kept only while there is an
// engine.
class HttpSessionPool : boost::noncopyable {
 public:
  // One more or one fewer engine; the last one to leave closes what is idle.
  void retain();
  void release();

  // A session for this policy, preferably one connected to origin, the most recently used first.
  std::unique_ptr<HttpSession> take(const HttpSessionPolicy& policy, const std::string& origin);
  // Gives back a session whose request is finished.
  void give(std::unique_ptr<HttpSession> session) noexcept;

 private:
  using Sessions = std::vector<std::unique_ptr<HttpSession>>;

  void takeExpired(Sessions& expired) KOVO_REQUIRES(_lock);
  Sessions::iterator find(const HttpSessionPolicy& policy, const std::string& origin)
      KOVO_REQUIRES(_lock);

  RecursiveLock _lock;
  std::size_t _engines KOVO_GUARDED_BY(_lock) = 0;
  std::shared_ptr<CurlShare> _share KOVO_GUARDED_BY(_lock);
  Sessions _idle KOVO_GUARDED_BY(_lock);  // the most recently used last
};

}  // namespace kovo
