#pragma once

#include <kovo/kovo.h>

#include <cstdint>

namespace kovo {

struct CallbackTable;
struct KovoSettings;
class HttpGetCache;
class KOVOStatsAggregator;
class KOVOStrategy;
class ProxyConfig;
class SqliteResumeCache;

// The object handed to every transfer at creation; it carries no state.
class TransferContext {};

// The engine as the C interface, the transfers, the requests and the upload protocols see it.
class KovoEngine {
 public:
  KovoEngine() = default;
  KovoEngine(const KovoEngine&) = delete;
  KovoEngine& operator=(const KovoEngine&) = delete;

  virtual void setMultipartUploadThreshold(std::uint64_t threshold) = 0;
  virtual std::uint64_t getMultipartUploadThreshold() const = 0;
  virtual ~KovoEngine() = default;

  virtual bool validateDownloadToMemory(const char* url, kovo_chunking_mode mode,
                                        kovo_error& error) const = 0;
  virtual kovo_error downloadToMemory(const char* url, kovo_chunking_mode mode,
                                      std::uint32_t priority, void* context,
                                      kovo_async_token& token) = 0;
  virtual kovo_error downloadRangeToMemory(const char* url, std::uint64_t rangeStart,
                                           std::uint64_t rangeLength, kovo_chunking_mode mode,
                                           std::uint32_t priority, void* context,
                                           kovo_async_token& token) = 0;
  virtual bool validateDownload(const char* url, const char* outputPath, kovo_chunking_mode mode,
                                kovo_error& error) const = 0;
  virtual kovo_error download(const char* url, const char* outputPath, kovo_chunking_mode mode,
                              std::uint32_t priority, void* context, kovo_async_token& token) = 0;
  virtual bool validateUpload(kovo_http_verb verb, const char* url, const char* inputPath,
                              kovo_error& error) const = 0;
  virtual kovo_error upload(kovo_http_verb verb, const char* url, const char* inputPath,
                            kovo_chunking_mode mode, std::uint32_t priority, void* context,
                            kovo_async_token& token) = 0;
  virtual bool validateUploadFromMemory(kovo_http_verb verb, const char* url,
                                        kovo_error& error) const = 0;
  virtual kovo_error uploadFromMemory(kovo_http_verb verb, const char* url, std::uint32_t priority,
                                      void* context, kovo_async_token& token) = 0;
  virtual kovo_error sendRequest(kovo_http_verb verb, const char* url, std::uint32_t priority,
                                 bool acceptGzip, void* context, kovo_async_token& token) = 0;

  virtual kovo_error cancel(kovo_async_token token) = 0;
  virtual kovo_error pause(kovo_async_token token, bool restartWhenDrained) = 0;
  virtual kovo_error resume(kovo_async_token token, kovo_async_token& newToken) = 0;
  // Seconds of inactivity granted to a request when the client leaves the choice to the engine.
  virtual std::uint32_t getDefaultTimeout() = 0;

  virtual kovo_error registerResponseBodyCallback(kovo_response_body_callback callback) = 0;
  virtual kovo_error registerErrorCallback(kovo_error_callback callback) = 0;
  virtual kovo_error registerRequestBodyCallback(
      kovo_request_body_callback body, kovo_request_body_content_length_callback length) = 0;
  virtual kovo_error registerCompletionCallback(kovo_completion_callback callback) = 0;
  virtual kovo_error registerStatusLineCallback(kovo_status_line_callback callback) = 0;
  virtual kovo_error registerCancellationCallback(kovo_cancellation_callback callback) = 0;
  virtual kovo_error registerPausedCallback(kovo_paused_callback callback) = 0;
  virtual kovo_error registerProgressCallback(kovo_progress_callback callback) = 0;
  virtual kovo_error registerRequestHeaderCallback(kovo_request_header_callback callback) = 0;
  virtual kovo_error registerAddParametersCallback(kovo_add_parameters_callback callback) = 0;
  virtual kovo_error registerResponseHeaderCallback(kovo_response_header_callback callback) = 0;
  virtual kovo_error registerMonitorCallback(kovo_monitor_callback callback) = 0;
  virtual kovo_error registerSSLCertificatePolicyCallback(
      kovo_ssl_certificate_policy_callback callback) = 0;
  virtual kovo_error registerSetTimeoutCallback(kovo_set_timeout_callback callback) = 0;
  virtual kovo_error registerAddChunkHeaderCallback(kovo_add_chunk_header_callback callback) = 0;
  virtual kovo_error registerChunkErrorRetryCallback(kovo_chunk_error_retry_callback callback) = 0;
  virtual kovo_error registerSetServerTypeCallback(kovo_set_server_type_callback callback) = 0;

  virtual void setExpectedDownloadSize(std::uint64_t size) = 0;
  virtual std::uint64_t getExpectedDownloadSize() const = 0;
  virtual ProxyConfig& getProxyConfig() = 0;
  virtual kovo_error setSystemProxyCredentials(const char* username, const char* password) = 0;
  // Null when the cache is switched off or could not be opened.
  virtual HttpGetCache* getGetCache() = 0;
  // Null when no transfer can resume.
  virtual SqliteResumeCache* getResumeCache() = 0;
  virtual void clearCache() = 0;
  virtual kovo_error setTargetDataRates(std::uint64_t uploadRate, std::uint64_t downloadRate) = 0;
  virtual kovo_error setWorkerPoolUpperLimit(std::uint32_t limit) = 0;
  virtual CallbackTable& getCallbacks() = 0;
  virtual TransferContext* getTransferContext() = 0;
  virtual const KovoSettings& getSettings() const = 0;
  virtual KOVOStatsAggregator& getStatsAggregator() = 0;
  virtual KOVOStrategy& getStrategy() = 0;
  virtual bool validateCallbacks(kovo_error& error) const = 0;
};

}  // namespace kovo
