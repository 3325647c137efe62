#pragma once

#include <string>

#include "core/lock.h"

namespace kovo {

// Credentials for the system's proxy; owned by the engine, read by every request.
class ProxyConfig : boost::noncopyable {
 public:
  struct Credentials {
    std::string username;
    std::string password;
  };

  void setUseSystemProxyCredentials(bool use) {
    ScopedLock guard(_lock);
    _useSystemProxyCredentials = use;
  }
  // Keeps what it has when the user name is empty.
  void setCredentials(const std::string& username, const std::string& password);
  // Whether credentials are wanted and a user name is known.
  bool hasCredentials() const {
    ScopedLock guard(_lock);
    return _useSystemProxyCredentials && !_credentials.username.empty();
  }
  // Both empty unless hasCredentials.
  Credentials credentials() const {
    ScopedLock guard(_lock);
    return _useSystemProxyCredentials ? _credentials : Credentials{};
  }

 private:
  mutable RecursiveLock _lock;
  bool _useSystemProxyCredentials KOVO_GUARDED_BY(_lock) = false;
  Credentials _credentials KOVO_GUARDED_BY(_lock);
};

}  // namespace kovo
