#pragma once

#include <atomic>
#include <memory>
#include <string>

#include "callbacks/callback_table.h"
#include "core/kovo_engine.h"
#include "core/kovo_settings.h"
#include "core/lock.h"
#include "http/proxy_config.h"

namespace kovo {

class ClientCallbackHandler;
class ChunkedDownload;
class WorkProvider;
class WorkScheduler;

// The object behind an instance handle: owns what one instance needs and turns each client call
// into checks, a transfer and its submission. Keeps no reference to a transfer: the scheduler and
// the transfer's own work hold it.
class KovoEngineImpl : public KovoEngine {
 public:
  // Throws when a part cannot be made.
  explicit KovoEngineImpl(const kovo_config* config);
  // Ends every transfer first, so that none touches the engine afterwards.
  ~KovoEngineImpl() override;

  void setMultipartUploadThreshold(std::uint64_t threshold) override;
  std::uint64_t getMultipartUploadThreshold() const override;

  bool validateDownloadToMemory(const char* url, kovo_chunking_mode mode,
                                kovo_error& error) const override;
  kovo_error downloadToMemory(const char* url, kovo_chunking_mode mode, std::uint32_t priority,
                              void* context, kovo_async_token& token) override;
  kovo_error downloadRangeToMemory(const char* url, std::uint64_t rangeStart,
                                   std::uint64_t rangeLength, kovo_chunking_mode mode,
                                   std::uint32_t priority, void* context,
                                   kovo_async_token& token) override;
  bool validateDownload(const char* url, const char* outputPath, kovo_chunking_mode mode,
                        kovo_error& error) const override;
  kovo_error download(const char* url, const char* outputPath, kovo_chunking_mode mode,
                      std::uint32_t priority, void* context, kovo_async_token& token) override;
  bool validateUpload(kovo_http_verb verb, const char* url, const char* inputPath,
                      kovo_error& error) const override;
  kovo_error upload(kovo_http_verb verb, const char* url, const char* inputPath,
                    kovo_chunking_mode mode, std::uint32_t priority, void* context,
                    kovo_async_token& token) override;
  bool validateUploadFromMemory(kovo_http_verb verb, const char* url,
                                kovo_error& error) const override;
  kovo_error uploadFromMemory(kovo_http_verb verb, const char* url, std::uint32_t priority,
                              void* context, kovo_async_token& token) override;
  kovo_error sendRequest(kovo_http_verb verb, const char* url, std::uint32_t priority,
                         bool acceptGzip, void* context, kovo_async_token& token) override;

  kovo_error cancel(kovo_async_token token) override;
  kovo_error pause(kovo_async_token token, bool restartWhenDrained) override;
  kovo_error resume(kovo_async_token token, kovo_async_token& newToken) override;
  std::uint32_t getDefaultTimeout() override;

  kovo_error registerResponseBodyCallback(kovo_response_body_callback callback) override;
  kovo_error registerErrorCallback(kovo_error_callback callback) override;
  kovo_error registerRequestBodyCallback(kovo_request_body_callback body,
                                         kovo_request_body_content_length_callback length) override;
  kovo_error registerCompletionCallback(kovo_completion_callback callback) override;
  kovo_error registerStatusLineCallback(kovo_status_line_callback callback) override;
  kovo_error registerCancellationCallback(kovo_cancellation_callback callback) override;
  kovo_error registerPausedCallback(kovo_paused_callback callback) override;
  kovo_error registerProgressCallback(kovo_progress_callback callback) override;
  kovo_error registerRequestHeaderCallback(kovo_request_header_callback callback) override;
  kovo_error registerAddParametersCallback(kovo_add_parameters_callback callback) override;
  kovo_error registerResponseHeaderCallback(kovo_response_header_callback callback) override;
  kovo_error registerMonitorCallback(kovo_monitor_callback callback) override;
  kovo_error registerSSLCertificatePolicyCallback(
      kovo_ssl_certificate_policy_callback callback) override;
  kovo_error registerSetTimeoutCallback(kovo_set_timeout_callback callback) override;
  kovo_error registerAddChunkHeaderCallback(kovo_add_chunk_header_callback callback) override;
  kovo_error registerChunkErrorRetryCallback(kovo_chunk_error_retry_callback callback) override;
  kovo_error registerSetServerTypeCallback(kovo_set_server_type_callback callback) override;

  void setExpectedDownloadSize(std::uint64_t size) override { _expectedDownloadSize = size; }
  std::uint64_t getExpectedDownloadSize() const override { return _expectedDownloadSize; }
  ProxyConfig& getProxyConfig() override { return *_proxyConfig; }
  kovo_error setSystemProxyCredentials(const char* username, const char* password) override;
  HttpGetCache* getGetCache() override { return _getCache.get(); }
  SqliteResumeCache* getResumeCache() override { return _resumeCache.get(); }
  void clearCache() override;
  kovo_error setTargetDataRates(std::uint64_t uploadRate, std::uint64_t downloadRate) override;
  kovo_error setWorkerPoolUpperLimit(std::uint32_t limit) override;
  CallbackTable& getCallbacks() override { return *_callbackTable; }
  TransferContext* getTransferContext() override { return &_transferContext; }
  const KovoSettings& getSettings() const override { return _settings; }
  KOVOStatsAggregator& getStatsAggregator() override { return *_statsAggregator; }
  KOVOStrategy& getStrategy() override { return *_strategy; }
  bool validateCallbacks(kovo_error& error) const override;

 private:
  bool validateDownloadArguments(const char* url, kovo_chunking_mode mode, kovo_error& error) const;
  bool validateUploadArguments(kovo_http_verb verb, const char* url, kovo_error& error) const;
  std::unique_ptr<SqliteResumeCache> initialiseAndReturnResumeCache() const;
  std::shared_ptr<ClientCallbackHandler> makeCallbackHandler(void* context);
  kovo_error submit(std::shared_ptr<WorkProvider> transfer, kovo_async_token& token);

  std::atomic<std::uint64_t> _multipartUploadThreshold{0};
  std::unique_ptr<CallbackTable> _callbackTable;
  std::unique_ptr<HttpGetCache> _getCache;
  RecursiveLock _engineLock;  // cancel, pause and resume by token: look-up and action are one step
  std::unique_ptr<WorkScheduler> _scheduler;
  std::unique_ptr<SqliteResumeCache> _resumeCache;
  std::unique_ptr<KOVOStatsAggregator> _statsAggregator;
  std::unique_ptr<ProxyConfig> _proxyConfig;
  const KovoSettings _settings;
  TransferContext _transferContext;
  std::unique_ptr<KOVOStrategy> _strategy;
  std::string _baseDirectory;
  std::atomic<std::uint64_t> _expectedDownloadSize{0};
};

}  // namespace kovo
