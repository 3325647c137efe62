#include "platform/http_client.h"

#include <curl/curl.h>

#include <utility>

#include "platform/linux/curl_exchange.h"
#include "platform/linux/http_session_pool.h"

namespace kovo {

namespace {

class CurlHttpClient final : public HttpClient {
 public:
  CurlHttpClient() { curl_global_init(CURL_GLOBAL_DEFAULT); }

  std::unique_ptr<HttpExchange> createExchange(Interrupt interrupt) override {
    return std::make_unique<CurlExchange>(_pool, std::move(interrupt));
  }

  HttpSessionPool& pool() { return _pool; }

 private:
  HttpSessionPool _pool;
};

// Never destroyed: exchanges may outlive the static objects of a process that exits while they run.
CurlHttpClient& client() {
  static CurlHttpClient* const instance = new CurlHttpClient;
  return *instance;
}

}  // namespace

HttpClient& HttpClient::system() {
  return client();
}

void HttpClient::retain() {
  client().pool().retain();
}

void HttpClient::release() {
  client().pool().release();
}

}  // namespace kovo
