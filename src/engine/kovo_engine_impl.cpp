#include "engine/kovo_engine_impl.h"

#include <algorithm>
#include <utility>

#include "cache/http_get_cache.h"
#include "cache/sqlite_backed_cache.h"
#include "cache/sqlite_resume_cache.h"
#include "callbacks/client_callback_handler.h"
#include "core/assertion.h"
#include "core/byte_block.h"
#include "http/kovo_http_utils.h"
#include "log/deferred_log.h"
#include "log/kovo_log.h"
#include "platform/clock.h"
#include "platform/http_client.h"
#include "platform/kovo_utils.h"
#include "scheduling/kovo_adaptive_strategy.h"
#include "scheduling/kovo_fixed_threads_strategy.h"
#include "scheduling/kovo_stats_aggregator_impl.h"
#include "scheduling/work_scheduler_impl.h"
#include "transfers/chunked_download.h"
#include "transfers/chunked_upload.h"
#include "transfers/serial_transfer.h"

namespace kovo {
namespace {

// Seconds the default timeout grows by for each worker that does not run.
constexpr std::uint32_t kSecondsPerIdleWorker = 30;

// A cached response may hold this many chunks.
constexpr std::uint64_t kCacheEntryChunks = 8;

bool isEmpty(const char* text) {
  return text == nullptr || *text == '\0';
}

// Offsets are signed 64-bit inside the engine.
bool isRangeRepresentable(std::uint64_t start, std::uint64_t length) {
  constexpr auto most = static_cast<std::uint64_t>(INT64_MAX);
  return start <= most && length <= most - start;
}

}  // namespace

KovoEngineImpl::KovoEngineImpl(const kovo_config* config)
    : _callbackTable(std::make_unique<CallbackTable>()),
      _statsAggregator(std::make_unique<KOVOStatsAggregatorImpl>(Clock::system())),
      _proxyConfig(std::make_unique<ProxyConfig>()),
      _settings(KovoSettings::fromConfig(config)) {
  if (_settings.adaptiveStrategy) {
    _strategy =
        std::make_unique<KOVOAdaptiveStrategy>(_settings, *_statsAggregator, Clock::system());
  } else {
    _strategy =
        std::make_unique<KOVOFixedThreadsStrategy>(_settings, *_statsAggregator, Clock::system());
  }
  {
    // What the search says goes where the log goes: with no base directory, to a callback at most.
    const DeferredLog log;
    _baseDirectory = BaseDirConfig::initBaseDir();
    kovoInitLog(_baseDirectory.c_str());
  }
  try {
    if (_settings.getCacheEnabled && !_baseDirectory.empty()) {
      // The file lies beside the base directory, not in it.
      _getCache = std::make_unique<SqliteBackedCache>(_baseDirectory + "kovoDB.sqlite",
                                                      _settings.getCacheMaxSize,
                                                      _settings.chunkSize * kCacheEntryChunks);
    }
    _resumeCache = initialiseAndReturnResumeCache();
    HttpClient::retain();
    try {
      _scheduler = std::make_unique<WorkSchedulerImpl>(*_strategy, _settings, *_callbackTable);
    } catch (...) {
      HttpClient::release();
      throw;
    }
  } catch (...) {
    kovoDeinitLog();
    throw;
  }
}

KovoEngineImpl::~KovoEngineImpl() {
  // Callbacks made on the way may still call the engine, so the scheduler stays in place until the
  // last one has returned.
  _scheduler->shutDown();
  _scheduler.reset();
  HttpClient::release();
  // Entries still on their way into the caches are written, and logged, before the log closes.
  _getCache.reset();
  _resumeCache.reset();
  kovoDeinitLog();
  ByteBlock::trimPool();
}

std::unique_ptr<SqliteResumeCache> KovoEngineImpl::initialiseAndReturnResumeCache() const {
  const char* function = "kovo::KovoEngineImpl::initialiseAndReturnResumeCache";
  if (!_baseDirectory.empty()) {
    auto cache = std::make_unique<SqliteResumeCache>(_baseDirectory.c_str());
    if (cache->isOpened()) {
      KOVO_LOG(KOVO_LOG_INFO, function, "Initialize upload cache pointer success");
      return cache;
    }
  }
  KOVO_LOG(KOVO_LOG_INFO, function, "Initialize resume cache pointer failure");
  return nullptr;
}

// --- Checks -------------------------------------------------------------------------------------

bool KovoEngineImpl::validateCallbacks(kovo_error& error) const {
  error = KOVO_ERROR_NONE;
  if (_callbackTable->completion == nullptr) {
    error = KOVO_ERROR_NO_COMPLETION_CALLBACK;
  } else if (_callbackTable->statusLine == nullptr) {
    error = KOVO_ERROR_NO_STATUS_LINE_CALLBACK;
  } else if (_callbackTable->error == nullptr) {
    error = KOVO_ERROR_NO_ERROR_CALLBACK;
  } else if (_callbackTable->cancellation == nullptr) {
    error = KOVO_ERROR_NO_CANCELLATION_CALLBACK;
  }
  return error == KOVO_ERROR_NONE;
}

bool KovoEngineImpl::validateDownloadArguments(const char* url, kovo_chunking_mode mode,
                                               kovo_error& error) const {
  if (isEmpty(url)) {
    error = KOVO_ERROR_NO_URL;
    return false;
  }
  if (mode > KOVO_CHUNKING_ALWAYS) {
    error = KOVO_ERROR_INVALID_PARAMETERS;
    return false;
  }
  return validateCallbacks(error);
}

bool KovoEngineImpl::validateUploadArguments(kovo_http_verb verb, const char* url,
                                             kovo_error& error) const {
  if (!KovoHttpUtils::mayCarryBody(verb)) {
    error = KOVO_ERROR_INVALID_HTTP_VERB;
    return false;
  }
  if (isEmpty(url)) {
    error = KOVO_ERROR_NO_URL;
    return false;
  }
  return validateCallbacks(error);
}

bool KovoEngineImpl::validateDownloadToMemory(const char* url, kovo_chunking_mode mode,
                                              kovo_error& error) const {
  if (!validateDownloadArguments(url, mode, error)) {
    return false;
  }
  if (_callbackTable->responseBody == nullptr) {
    error = KOVO_ERROR_NO_RESPONSE_BODY_CALLBACK;
    return false;
  }
  return true;
}

bool KovoEngineImpl::validateDownload(const char* url, const char* outputPath,
                                      kovo_chunking_mode mode, kovo_error& error) const {
  if (!validateDownloadArguments(url, mode, error)) {
    return false;
  }
  if (isEmpty(outputPath)) {
    error = KOVO_ERROR_INVALID_OUTPUT_FILE;
    return false;
  }
  return true;
}

bool KovoEngineImpl::validateUpload(kovo_http_verb verb, const char* url, const char* inputPath,
                                    kovo_error& error) const {
  if (!validateUploadArguments(verb, url, error)) {
    return false;
  }
  if (isEmpty(inputPath)) {
    error = KOVO_ERROR_INVALID_INPUT_FILE;
    return false;
  }
  return true;
}

bool KovoEngineImpl::validateUploadFromMemory(kovo_http_verb verb, const char* url,
                                              kovo_error& error) const {
  if (!validateUploadArguments(verb, url, error)) {
    return false;
  }
  if (_callbackTable->requestBody == nullptr) {
    error = KOVO_ERROR_NO_REQUEST_BODY_CALLBACK;
    return false;
  }
  if (_callbackTable->requestBodyContentLength == nullptr) {
    error = KOVO_ERROR_NO_CONTENT_LENGTH_CALLBACK;
    return false;
  }
  return true;
}

// --- Starting transfers -------------------------------------------------------------------------

std::shared_ptr<ClientCallbackHandler> KovoEngineImpl::makeCallbackHandler(void* context) {
  return std::make_shared<ClientCallbackHandler>(this, _callbackTable.get(), context);
}

kovo_error KovoEngineImpl::submit(std::shared_ptr<WorkProvider> transfer, kovo_async_token& token) {
  KOVO_ASSERT(token == NOTHING_ASYNC_TOKEN, "*asyncToken == NOTHING_ASYNC_TOKEN");
  token = _scheduler->submit(std::move(transfer));
  return token == NOTHING_ASYNC_TOKEN ? KOVO_ERROR_SUBMIT_FAILED : KOVO_ERROR_NONE;
}

kovo_error KovoEngineImpl::downloadToMemory(const char* url, kovo_chunking_mode mode,
                                            std::uint32_t priority, void* context,
                                            kovo_async_token& token) {
  kovo_error error = KOVO_ERROR_NONE;
  if (!validateDownloadToMemory(url, mode, error)) {
    return error;
  }
  return submit(std::make_shared<ChunkedDownload>(*this, getTransferContext(), url, mode, priority,
                                                  makeCallbackHandler(context)),
                token);
}

kovo_error KovoEngineImpl::downloadRangeToMemory(const char* url, std::uint64_t rangeStart,
                                                 std::uint64_t rangeLength, kovo_chunking_mode mode,
                                                 std::uint32_t priority, void* context,
                                                 kovo_async_token& token) {
  kovo_error error = KOVO_ERROR_NONE;
  if (!validateDownloadToMemory(url, mode, error)) {
    return error;
  }
  if (!isRangeRepresentable(rangeStart, rangeLength)) {
    return KOVO_ERROR_INVALID_BYTE_RANGE;
  }
  auto transfer = std::make_shared<ChunkedDownload>(*this, getTransferContext(), url, mode,
                                                    priority, makeCallbackHandler(context));
  transfer->setByteRange(
      KovoRange(static_cast<std::int64_t>(rangeStart), static_cast<std::int64_t>(rangeLength)));
  return submit(std::move(transfer), token);
}

kovo_error KovoEngineImpl::download(const char* url, const char* outputPath,
                                    kovo_chunking_mode mode, std::uint32_t priority, void* context,
                                    kovo_async_token& token) {
  kovo_error error = KOVO_ERROR_NONE;
  if (!validateDownload(url, outputPath, mode, error)) {
    return error;
  }
  return submit(
      std::make_shared<ChunkedDownload>(*this, getTransferContext(), url, std::string(outputPath),
                                        mode, priority, makeCallbackHandler(context)),
      token);
}

kovo_error KovoEngineImpl::upload(kovo_http_verb verb, const char* url, const char* inputPath,
                                  kovo_chunking_mode mode, std::uint32_t priority, void* context,
                                  kovo_async_token& token) {
  kovo_error error = KOVO_ERROR_NONE;
  if (!validateUpload(verb, url, inputPath, error)) {
    return error;
  }
  return submit(std::make_shared<ChunkedUpload>(*this, getTransferContext(), verb, url, inputPath,
                                                mode, priority, makeCallbackHandler(context)),
                token);
}

kovo_error KovoEngineImpl::uploadFromMemory(kovo_http_verb verb, const char* url,
                                            std::uint32_t priority, void* context,
                                            kovo_async_token& token) {
  kovo_error error = KOVO_ERROR_NONE;
  if (!validateUploadFromMemory(verb, url, error)) {
    return error;
  }
  return submit(
      std::make_shared<ChunkedUpload>(*this, getTransferContext(), verb, url, std::string(),
                                      KOVO_CHUNKING_SERIAL, priority, makeCallbackHandler(context)),
      token);
}

kovo_error KovoEngineImpl::sendRequest(kovo_http_verb verb, const char* url, std::uint32_t priority,
                                       bool acceptGzip, void* context, kovo_async_token& token) {
  if (isEmpty(url)) {
    return KOVO_ERROR_NO_URL;
  }
  kovo_error error = KOVO_ERROR_NONE;
  if (!validateCallbacks(error)) {
    return error;
  }
  return submit(std::make_shared<SerialTransfer>(*this, getTransferContext(), verb, url,
                                                 KOVO_CHUNKING_DEFAULT, priority, acceptGzip,
                                                 makeCallbackHandler(context)),
                token);
}

// --- Control by token ---------------------------------------------------------------------------

kovo_error KovoEngineImpl::cancel(kovo_async_token token) {
  const DeferredLog log;
  ScopedLock guard(_engineLock);
  std::shared_ptr<WorkProvider> provider = _scheduler->findWorkProvider(token);
  if (provider == nullptr) {
    return KOVO_ERROR_INVALID_PARAMETERS;
  }
  return _scheduler->cancel(provider);
}

kovo_error KovoEngineImpl::pause(kovo_async_token token, bool restartWhenDrained) {
  const DeferredLog log;
  ScopedLock guard(_engineLock);
  std::shared_ptr<WorkProvider> provider = _scheduler->findWorkProvider(token);
  if (provider == nullptr) {
    return KOVO_ERROR_INVALID_PARAMETERS;
  }
  return _scheduler->pause(provider, restartWhenDrained);
}

kovo_error KovoEngineImpl::resume(kovo_async_token token, kovo_async_token& newToken) {
  KOVO_ASSERT(newToken == NOTHING_ASYNC_TOKEN, "*returnAsyncToken == NOTHING_ASYNC_TOKEN");
  const DeferredLog log;
  ScopedLock guard(_engineLock);
  std::shared_ptr<WorkProvider> provider = _scheduler->findPausedWorkProvider(token);
  if (provider == nullptr) {
    return KOVO_ERROR_RESUME_FAILED;
  }
  newToken = _scheduler->resume(provider);
  return newToken == NOTHING_ASYNC_TOKEN ? KOVO_ERROR_RESUME_FAILED : KOVO_ERROR_NONE;
}

std::uint32_t KovoEngineImpl::getDefaultTimeout() {
  const std::uint32_t maximum = _strategy->getMaximumThreadCount();
  // The adaptive target may exceed the maximum; it then counts as the maximum.
  const std::uint32_t target = std::min(_strategy->getTargetThreadCount(), maximum);
  return _settings.timeoutBase + (maximum - target) * kSecondsPerIdleWorker;
}

// --- Registration -------------------------------------------------------------------------------

kovo_error KovoEngineImpl::registerResponseBodyCallback(kovo_response_body_callback callback) {
  _callbackTable->responseBody = callback;
  return KOVO_ERROR_NONE;
}

kovo_error KovoEngineImpl::registerErrorCallback(kovo_error_callback callback) {
  _callbackTable->error = callback;
  return KOVO_ERROR_NONE;
}

kovo_error KovoEngineImpl::registerRequestBodyCallback(
    kovo_request_body_callback body, kovo_request_body_content_length_callback length) {
  _callbackTable->requestBody = body;
  _callbackTable->requestBodyContentLength = length;
  return KOVO_ERROR_NONE;
}

kovo_error KovoEngineImpl::registerCompletionCallback(kovo_completion_callback callback) {
  _callbackTable->completion = callback;
  return KOVO_ERROR_NONE;
}

kovo_error KovoEngineImpl::registerStatusLineCallback(kovo_status_line_callback callback) {
  _callbackTable->statusLine = callback;
  return KOVO_ERROR_NONE;
}

kovo_error KovoEngineImpl::registerCancellationCallback(kovo_cancellation_callback callback) {
  _callbackTable->cancellation = callback;
  return KOVO_ERROR_NONE;
}

kovo_error KovoEngineImpl::registerPausedCallback(kovo_paused_callback callback) {
  _callbackTable->paused = callback;
  return KOVO_ERROR_NONE;
}

kovo_error KovoEngineImpl::registerProgressCallback(kovo_progress_callback callback) {
  _callbackTable->progress = callback;
  return KOVO_ERROR_NONE;
}

kovo_error KovoEngineImpl::registerRequestHeaderCallback(kovo_request_header_callback callback) {
  _callbackTable->requestHeader = callback;
  return KOVO_ERROR_NONE;
}

kovo_error KovoEngineImpl::registerAddParametersCallback(kovo_add_parameters_callback callback) {
  _callbackTable->addParameters = callback;
  return KOVO_ERROR_NONE;
}

kovo_error KovoEngineImpl::registerResponseHeaderCallback(kovo_response_header_callback callback) {
  _callbackTable->responseHeader = callback;
  return KOVO_ERROR_NONE;
}

kovo_error KovoEngineImpl::registerMonitorCallback(kovo_monitor_callback callback) {
  _callbackTable->monitor = callback;
  return KOVO_ERROR_NONE;
}

kovo_error KovoEngineImpl::registerSSLCertificatePolicyCallback(
    kovo_ssl_certificate_policy_callback callback) {
  _callbackTable->sslCertificatePolicy = callback;
  return KOVO_ERROR_NONE;
}

kovo_error KovoEngineImpl::registerSetTimeoutCallback(kovo_set_timeout_callback callback) {
  _callbackTable->setTimeout = callback;
  return KOVO_ERROR_NONE;
}

kovo_error KovoEngineImpl::registerAddChunkHeaderCallback(kovo_add_chunk_header_callback callback) {
  _callbackTable->addChunkHeader = callback;
  return KOVO_ERROR_NONE;
}

kovo_error KovoEngineImpl::registerChunkErrorRetryCallback(
    kovo_chunk_error_retry_callback callback) {
  _callbackTable->chunkErrorRetry = callback;
  return KOVO_ERROR_NONE;
}

kovo_error KovoEngineImpl::registerSetServerTypeCallback(kovo_set_server_type_callback callback) {
  _callbackTable->setServerType = callback;
  return KOVO_ERROR_NONE;
}

// --- Settings -----------------------------------------------------------------------------------

void KovoEngineImpl::setMultipartUploadThreshold(std::uint64_t threshold) {
  _multipartUploadThreshold = threshold;
}

std::uint64_t KovoEngineImpl::getMultipartUploadThreshold() const {
  return _multipartUploadThreshold;
}

kovo_error KovoEngineImpl::setSystemProxyCredentials(const char* username, const char* password) {
  _proxyConfig->setUseSystemProxyCredentials(true);
  if (isEmpty(username)) {
    return KOVO_ERROR_INVALID_PARAMETERS;
  }
  _proxyConfig->setCredentials(username, password == nullptr ? "" : password);
  return KOVO_ERROR_NONE;
}

void KovoEngineImpl::clearCache() {
  if (_getCache != nullptr) {
    _getCache->clear();
  }
}

kovo_error KovoEngineImpl::setTargetDataRates(std::uint64_t uploadRate,
                                              std::uint64_t downloadRate) {
  if (_statsAggregator == nullptr) {
    KOVO_LOG(KOVO_LOG_WARN, "kovo::KovoEngineImpl::setTargetDataRates",
             "Unable to set data throttles: Stats Aggregator missing");
    return KOVO_ERROR_NONE;
  }
  return _statsAggregator->setTargetDataRates(uploadRate, downloadRate);
}

kovo_error KovoEngineImpl::setWorkerPoolUpperLimit(std::uint32_t limit) {
  if (limit < _settings.workerPoolLowerLimit) {
    KOVO_LOG(KOVO_LOG_WARN, "kovo::KovoEngineImpl::setWorkerPoolUpperLimit",
             "Cannot set worker pool upper limit to %u. Worker pool lower limit is %u", limit,
             _settings.workerPoolLowerLimit);
    return KOVO_ERROR_INVALID_PARAMETERS;
  }
  _strategy->setMaximumThreadCount(limit);
  return KOVO_ERROR_NONE;
}

}  // namespace kovo
