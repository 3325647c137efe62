#include "http/proxy_config.h"

#include "log/kovo_log.h"

namespace kovo {

void ProxyConfig::setCredentials(const std::string& username, const std::string& password) {
  if (username.empty()) {
    KOVO_LOG(KOVO_LOG_WARN, "kovo::ProxyConfig::setCredentials",
             "Empty username specified for secure manual proxy");
    return;
  }
  ScopedLock guard(_lock);
  _credentials = {username, password};
}

}  // namespace kovo
