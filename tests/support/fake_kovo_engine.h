#pragma once

#include <stdexcept>

#include "callbacks/callback_table.h"
#include "core/kovo_engine.h"
#include "core/kovo_settings.h"
#include "http/proxy_config.h"

namespace kovo::test {

/** An engine of settings, a callback table and a default timeout; it starts no transfers. */
class FakeKovoEngine : public KovoEngine {
 public:
  KovoSettings settings;
  CallbackTable callbacks;
  ProxyConfig proxyConfig;
  TransferContext transferContext;
  std::uint32_t defaultTimeout = 30;

  const KovoSettings& getSettings() const override { return settings; }
  CallbackTable& getCallbacks() override { return callbacks; }
  ProxyConfig& getProxyConfig() override { return proxyConfig; }
  TransferContext* getTransferContext() override { return &transferContext; }
  std::uint32_t getDefaultTimeout() override { return defaultTimeout; }
  HttpGetCache* getGetCache() override { return nullptr; }
  SqliteResumeCache* getResumeCache() override { return nullptr; }
  KOVOStatsAggregator& getStatsAggregator() override { return missing<KOVOStatsAggregator>(); }
  KOVOStrategy& getStrategy() override { return missing<KOVOStrategy>(); }

  void setMultipartUploadThreshold(std::uint64_t) override {}
  std::uint64_t getMultipartUploadThreshold() const override { return 0; }
  void setExpectedDownloadSize(std::uint64_t) override {}
  std::uint64_t getExpectedDownloadSize() const override { return 0; }
  void clearCache() override {}

  bool validateDownloadToMemory(const char*, kovo_chunking_mode, kovo_error& e) const override {
    return refuse(e);
  }
  bool validateDownload(const char*, const char*, kovo_chunking_mode,
                        kovo_error& e) const override {
    return refuse(e);
  }
  bool validateUpload(kovo_http_verb, const char*, const char*, kovo_error& e) const override {
    return refuse(e);
  }
  bool validateUploadFromMemory(kovo_http_verb, const char*, kovo_error& e) const override {
    return refuse(e);
  }
  bool validateCallbacks(kovo_error& e) const override { return refuse(e); }
  kovo_error downloadToMemory(const char*, kovo_chunking_mode, std::uint32_t, void*,
                              kovo_async_token&) override {
    return KOVO_ERROR_NOT_IMPLEMENTED;
  }
  kovo_error downloadRangeToMemory(const char*, std::uint64_t, std::uint64_t, kovo_chunking_mode,
                                   std::uint32_t, void*, kovo_async_token&) override {
    return KOVO_ERROR_NOT_IMPLEMENTED;
  }
  kovo_error download(const char*, const char*, kovo_chunking_mode, std::uint32_t, void*,
                      kovo_async_token&) override {
    return KOVO_ERROR_NOT_IMPLEMENTED;
  }
  kovo_error upload(kovo_http_verb, const char*, const char*, kovo_chunking_mode, std::uint32_t,
                    void*, kovo_async_token&) override {
    return KOVO_ERROR_NOT_IMPLEMENTED;
  }
  kovo_error uploadFromMemory(kovo_http_verb, const char*, std::uint32_t, void*,
                              kovo_async_token&) override {
    return KOVO_ERROR_NOT_IMPLEMENTED;
  }
  kovo_error sendRequest(kovo_http_verb, const char*, std::uint32_t, bool, void*,
                         kovo_async_token&) override {
    return KOVO_ERROR_NOT_IMPLEMENTED;
  }
  kovo_error cancel(kovo_async_token) override { return KOVO_ERROR_NOT_IMPLEMENTED; }
  kovo_error pause(kovo_async_token, bool) override { return KOVO_ERROR_NOT_IMPLEMENTED; }
  kovo_error resume(kovo_async_token, kovo_async_token&) override {
    return KOVO_ERROR_NOT_IMPLEMENTED;
  }
  kovo_error setSystemProxyCredentials(const char*, const char*) override {
    return KOVO_ERROR_NOT_IMPLEMENTED;
  }
  kovo_error setTargetDataRates(std::uint64_t, std::uint64_t) override {
    return KOVO_ERROR_NOT_IMPLEMENTED;
  }
  kovo_error setWorkerPoolUpperLimit(std::uint32_t) override { return KOVO_ERROR_NOT_IMPLEMENTED; }

  kovo_error registerResponseBodyCallback(kovo_response_body_callback callback) override {
    return store(callbacks.responseBody, callback);
  }
  kovo_error registerErrorCallback(kovo_error_callback callback) override {
    return store(callbacks.error, callback);
  }
  kovo_error registerRequestBodyCallback(
      kovo_request_body_callback body, kovo_request_body_content_length_callback length) override {
    store(callbacks.requestBodyContentLength, length);
    return store(callbacks.requestBody, body);
  }
  kovo_error registerCompletionCallback(kovo_completion_callback callback) override {
    return store(callbacks.completion, callback);
  }
  kovo_error registerStatusLineCallback(kovo_status_line_callback callback) override {
    return store(callbacks.statusLine, callback);
  }
  kovo_error registerCancellationCallback(kovo_cancellation_callback callback) override {
    return store(callbacks.cancellation, callback);
  }
  kovo_error registerPausedCallback(kovo_paused_callback callback) override {
    return store(callbacks.paused, callback);
  }
  kovo_error registerProgressCallback(kovo_progress_callback callback) override {
    return store(callbacks.progress, callback);
  }
  kovo_error registerRequestHeaderCallback(kovo_request_header_callback callback) override {
    return store(callbacks.requestHeader, callback);
  }
  kovo_error registerAddParametersCallback(kovo_add_parameters_callback callback) override {
    return store(callbacks.addParameters, callback);
  }
  kovo_error registerResponseHeaderCallback(kovo_response_header_callback callback) override {
    return store(callbacks.responseHeader, callback);
  }
  kovo_error registerMonitorCallback(kovo_monitor_callback callback) override {
    return store(callbacks.monitor, callback);
  }
  kovo_error registerSSLCertificatePolicyCallback(
      kovo_ssl_certificate_policy_callback callback) override {
    return store(callbacks.sslCertificatePolicy, callback);
  }
  kovo_error registerSetTimeoutCallback(kovo_set_timeout_callback callback) override {
    return store(callbacks.setTimeout, callback);
  }
  kovo_error registerAddChunkHeaderCallback(kovo_add_chunk_header_callback callback) override {
    return store(callbacks.addChunkHeader, callback);
  }
  kovo_error registerChunkErrorRetryCallback(kovo_chunk_error_retry_callback callback) override {
    return store(callbacks.chunkErrorRetry, callback);
  }
  kovo_error registerSetServerTypeCallback(kovo_set_server_type_callback callback) override {
    return store(callbacks.setServerType, callback);
  }

 private:
  template <typename Slot, typename Callback>
  static kovo_error store(Slot& slot, Callback callback) {
    slot = callback;
    return KOVO_ERROR_NONE;
  }
  static bool refuse(kovo_error& error) {
    error = KOVO_ERROR_NOT_IMPLEMENTED;
    return false;
  }
  template <typename T>
  static T& missing() {
    throw std::logic_error("the fake engine has none");
  }
};

}  // namespace kovo::test
