#include "platform/linux/curl_share.h"

#include <openssl/x509_vfy.h>

#include <cstdlib>
#include <new>

namespace kovo {

CurlShare::CurlShare() : _handle(curl_share_init()) {
  if (!_handle) {
    throw std::bad_alloc();
  }
  curl_share_setopt(_handle, CURLSHOPT_USERDATA, this);
  curl_share_setopt(_handle, CURLSHOPT_LOCKFUNC, &CurlShare::lock);
  curl_share_setopt(_handle, CURLSHOPT_UNLOCKFUNC, &CurlShare::unlock);
  curl_share_setopt(_handle, CURLSHOPT_SHARE, CURL_LOCK_DATA_DNS);
  curl_share_setopt(_handle, CURLSHOPT_SHARE, CURL_LOCK_DATA_SSL_SESSION);
}

CurlShare::~CurlShare() {
  curl_share_cleanup(_handle);
  ScopedLock held(_trustLock);
  X509_STORE_free(_trust);
}

X509_STORE* CurlShare::trustStore() {
  ScopedLock held(_trustLock);
  if (!_trustLoaded) {
    _trust = loadTrustStore();
    _trustLoaded = true;
  }
  return _trust;
}

X509_STORE* CurlShare::loadTrustStore() {
  X509_STORE* store = X509_STORE_new();
  if (!store) {
    return nullptr;
  }
  const curl_version_info_data* curl = curl_version_info(CURLVERSION_NOW);
  const bool redirected = std::getenv("SSL_CERT_FILE") || std::getenv("SSL_CERT_DIR");
  bool loaded = false;
  if (!redirected) {
    loaded = curl->cainfo && X509_STORE_load_file(store, curl->cainfo) == 1;
    // Read lazily, certificate by certificate.
    loaded = (curl->capath && X509_STORE_load_path(store, curl->capath) == 1) || loaded;
  }
  if (!loaded && X509_STORE_set_default_paths(store) != 1) {
    X509_STORE_free(store);
    return nullptr;
  }
  // As libcurl sets them on a store of its own: the shortest chain to any trusted certificate.
  X509_STORE_set_flags(store, X509_V_FLAG_TRUSTED_FIRST | X509_V_FLAG_PARTIAL_CHAIN);
  return store;
}

void CurlShare::lock(CURL*, curl_lock_data data, curl_lock_access, void* self) {
  static_cast<CurlShare*>(self)->_locks[data].lock();
}

void CurlShare::unlock(CURL*, curl_lock_data data, void* self) {
  static_cast<CurlShare*>(self)->_locks[data].unlock();
}

}  // namespace kovo
