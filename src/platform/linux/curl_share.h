#pragma once

#include <curl/curl.h>
#include <openssl/types.h>

#include <array>
#include <boost/noncopyable.hpp>
#include <mutex>

#include "core/lock.h"

namespace kovo {

// What all sessions have in common: resolved names, TLS sessions and the trusted certificates.
// Connections are not among it: libcurl does not allow them to be shared between threads.
class CurlShare : boost::noncopyable {
 public:
  CurlShare();
  ~CurlShare();

  CURLSH* handle() const { return _handle; }

  // The system's trusted certificates, read once: libcurl by itself reads the whole bundle again
  // for each session, tens of milliseconds each time. Null when there are none.
  X509_STORE* trustStore();

 private:
  static void lock(CURL* easy, curl_lock_data data, curl_lock_access access, void* self);
  static void unlock(CURL* easy, curl_lock_data data, void* self);
  static X509_STORE* loadTrustStore();

  CURLSH* const _handle;
  std::array<std::mutex, CURL_LOCK_DATA_LAST> _locks;
  RecursiveLock _trustLock;
  bool _trustLoaded KOVO_GUARDED_BY(_trustLock) = false;
  X509_STORE* _trust KOVO_GUARDED_BY(_trustLock) = nullptr;
};

}  // namespace kovo
