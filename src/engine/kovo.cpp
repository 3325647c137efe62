#include <cxxabi.h>
#include <kovo/kovo_ext.h>

#include "core/assertion.h"
#include "core/kovo_error.h"
#include "engine/kovo_engine_impl.h"
#include "log/kovo_log.h"
#include "platform/hardware.h"
#include "scheduling/work_scheduler.h"
#include "upload/s3_endpoint.h"

// The exported functions: each forwards to one operation of the engine and lets no exception out.

namespace {

using kovo::KovoEngine;

KovoEngine* engineOf(kovo_instance instance) {
  return reinterpret_cast<KovoEngine*>(instance);
}

template <typename Call>
kovo_error guarded(kovo_instance instance, Call&& call) {
  if (instance == nullptr) {
    return KOVO_ERROR_INSTANCE_NOT_INITIALISED;
  }
  try {
    return call(*engineOf(instance));
  } catch (abi::__forced_unwind&) {
    throw;  // the host is ending this thread
  } catch (...) {
    return KOVO_ERROR_UNKNOWN;
  }
}

// For operations that hand out a token: success always comes with one, failure never.
template <typename Call>
kovo_error guardedWithToken(kovo_instance instance, kovo_async_token* token, Call&& call) {
  if (token == nullptr) {
    return instance == nullptr ? KOVO_ERROR_INSTANCE_NOT_INITIALISED
                               : KOVO_ERROR_INVALID_PARAMETERS;
  }
  *token = NOTHING_ASYNC_TOKEN;
  // Filled in aside: the transfer's first callbacks may run before the start call returns.
  kovo_async_token made = NOTHING_ASYNC_TOKEN;
  kovo_error kovoError = guarded(instance, [&](KovoEngine& engine) { return call(engine, made); });
  if (kovoError == KOVO_ERROR_NONE) {
    *token = made;
  }
  KOVO_ASSERT(
      !((kovoError == KOVO_ERROR_NONE && *token == NOTHING_ASYNC_TOKEN) ||
        (kovoError != KOVO_ERROR_NONE && *token != NOTHING_ASYNC_TOKEN)),
      "!((kovoError == KOVO_ERROR_NONE && *asyncToken == NOTHING_ASYNC_TOKEN) || (kovoError "
      "!= KOVO_ERROR_NONE && *asyncToken != NOTHING_ASYNC_TOKEN))");
  return kovoError;
}

template <typename Call>
void guardedVoid(kovo_instance instance, Call&& call) {
  guarded(instance, [&](KovoEngine& engine) -> kovo_error {
    call(engine);
    return KOVO_ERROR_NONE;
  });
}

}  // namespace

kovo_instance kovoCreate(const kovo_config* config) {
  try {
    KovoEngine* engine = new kovo::KovoEngineImpl(config);
    return reinterpret_cast<kovo_instance>(engine);
  } catch (abi::__forced_unwind&) {
    throw;
  } catch (...) {
    return nullptr;
  }
}

kovo_error kovoDestroy(kovo_instance* instanceRef) {
  if (instanceRef == nullptr || *instanceRef == nullptr) {
    return KOVO_ERROR_INSTANCE_RELEASED;
  }
  if (kovo::WorkScheduler::isLibraryThread() || kovo::isInLoggingCallback()) {
    return KOVO_ERROR_UNKNOWN;  // this thread would have to wait for itself
  }
  const kovo_error kovoError = guarded(*instanceRef, [](KovoEngine& engine) -> kovo_error {
    delete &engine;
    return KOVO_ERROR_NONE;
  });
  if (kovoError == KOVO_ERROR_NONE) {
    *instanceRef = nullptr;
  }
  return kovoError;
}

// --- Registration -------------------------------------------------------------------------------

#define KOVO_REGISTRATION(function, type, operation)                                              \
  kovo_error function(kovo_instance instance, type callback) {                                    \
    return guarded(instance,                                                                      \
                   [&](KovoEngine& engine) -> kovo_error { return engine.operation(callback); }); \
  }

KOVO_REGISTRATION(kovoRegisterResponseBodyCallback, kovo_response_body_callback,
                  registerResponseBodyCallback)
KOVO_REGISTRATION(kovoRegisterErrorCallback, kovo_error_callback, registerErrorCallback)
KOVO_REGISTRATION(kovoRegisterCompletionCallback, kovo_completion_callback,
                  registerCompletionCallback)
KOVO_REGISTRATION(kovoRegisterStatusLineCallback, kovo_status_line_callback,
                  registerStatusLineCallback)
KOVO_REGISTRATION(kovoRegisterCancellationCallback, kovo_cancellation_callback,
                  registerCancellationCallback)
KOVO_REGISTRATION(kovoRegisterPausedCallback, kovo_paused_callback, registerPausedCallback)
KOVO_REGISTRATION(kovoRegisterProgressCallback, kovo_progress_callback, registerProgressCallback)
KOVO_REGISTRATION(kovoRegisterMonitorCallback, kovo_monitor_callback, registerMonitorCallback)
KOVO_REGISTRATION(kovoRegisterAddHeaderCallback, kovo_request_header_callback,
                  registerRequestHeaderCallback)
KOVO_REGISTRATION(kovoRegisterAddParametersCallback, kovo_add_parameters_callback,
                  registerAddParametersCallback)
KOVO_REGISTRATION(kovoRegisterResponseHeaderCallback, kovo_response_header_callback,
                  registerResponseHeaderCallback)
KOVO_REGISTRATION(kovoRegisterSSLCertificatePolicyCallback, kovo_ssl_certificate_policy_callback,
                  registerSSLCertificatePolicyCallback)
KOVO_REGISTRATION(kovoRegisterSetTimeoutCallback, kovo_set_timeout_callback,
                  registerSetTimeoutCallback)
KOVO_REGISTRATION(kovoRegisterAddChunkHeaderCallback, kovo_add_chunk_header_callback,
                  registerAddChunkHeaderCallback)
KOVO_REGISTRATION(kovoRegisterChunkErrorRetryCallback, kovo_chunk_error_retry_callback,
                  registerChunkErrorRetryCallback)
KOVO_REGISTRATION(kovoRegisterSetServerTypeCallback, kovo_set_server_type_callback,
                  registerSetServerTypeCallback)

#undef KOVO_REGISTRATION

kovo_error kovoRegisterRequestBodyCallback(
    kovo_instance instance, kovo_request_body_callback requestBodyCallback,
    kovo_request_body_content_length_callback requestBodyContentLengthCallback) {
  return guarded(instance, [&](KovoEngine& engine) {
    return engine.registerRequestBodyCallback(requestBodyCallback,
                                              requestBodyContentLengthCallback);
  });
}

kovo_error kovoRegisterLoggingCallback(kovo_logging_callback callback, void* loggingContext) {
  kovo::registerLoggingCallback(callback, loggingContext);
  return KOVO_ERROR_NONE;
}

// --- Transfers ----------------------------------------------------------------------------------

kovo_error kovoDownload(kovo_instance instance, const char* url, const char* outputPath,
                        kovo_chunking_mode mode, uint32_t priority, void* context,
                        kovo_async_token* asyncToken) {
  return guardedWithToken(instance, asyncToken, [&](KovoEngine& engine, kovo_async_token& token) {
    return engine.download(url, outputPath, mode, priority, context, token);
  });
}

kovo_error kovoDownloadWithSize(kovo_instance instance, const char* url, const char* outputPath,
                                kovo_chunking_mode mode, uint32_t priority, uint64_t expectedSize,
                                void* context, kovo_async_token* asyncToken) {
  return guardedWithToken(instance, asyncToken, [&](KovoEngine& engine, kovo_async_token& token) {
    engine.setExpectedDownloadSize(expectedSize);
    return engine.download(url, outputPath, mode, priority, context, token);
  });
}

kovo_error kovoDownloadToMemory(kovo_instance instance, const char* url, kovo_chunking_mode mode,
                                uint32_t priority, void* context, kovo_async_token* asyncToken) {
  return guardedWithToken(instance, asyncToken, [&](KovoEngine& engine, kovo_async_token& token) {
    return engine.downloadToMemory(url, mode, priority, context, token);
  });
}

kovo_error kovoDownloadRangeToMemory(kovo_instance instance, const char* url, uint64_t rangeStart,
                                     uint64_t rangeLength, kovo_chunking_mode mode,
                                     uint32_t priority, void* context,
                                     kovo_async_token* asyncToken) {
  return guardedWithToken(instance, asyncToken, [&](KovoEngine& engine, kovo_async_token& token) {
    return engine.downloadRangeToMemory(url, rangeStart, rangeLength, mode, priority, context,
                                        token);
  });
}

kovo_error kovoUpload(kovo_instance instance, kovo_http_verb verb, const char* url,
                      const char* inputPath, kovo_chunking_mode mode, uint32_t priority,
                      void* context, kovo_async_token* asyncToken) {
  return guardedWithToken(instance, asyncToken, [&](KovoEngine& engine, kovo_async_token& token) {
    return engine.upload(verb, url, inputPath, mode, priority, context, token);
  });
}

kovo_error kovoUploadFromMemory(kovo_instance instance, kovo_http_verb verb, const char* url,
                                uint32_t priority, void* context, kovo_async_token* asyncToken) {
  return guardedWithToken(instance, asyncToken, [&](KovoEngine& engine, kovo_async_token& token) {
    return engine.uploadFromMemory(verb, url, priority, context, token);
  });
}

kovo_error kovoSendRequest(kovo_instance instance, kovo_http_verb verb, const char* url,
                           uint32_t priority, uint32_t acceptGzip, void* context,
                           kovo_async_token* asyncToken) {
  return guardedWithToken(instance, asyncToken, [&](KovoEngine& engine, kovo_async_token& token) {
    return engine.sendRequest(verb, url, priority, acceptGzip != 0, context, token);
  });
}

// --- Control ------------------------------------------------------------------------------------

kovo_error kovoCancel(kovo_instance instance, kovo_async_token token) {
  return guarded(instance, [&](KovoEngine& engine) { return engine.cancel(token); });
}

kovo_error kovoPause(kovo_instance instance, kovo_async_token token) {
  return guarded(instance, [&](KovoEngine& engine) { return engine.pause(token, false); });
}

kovo_error kovoResume(kovo_instance instance, kovo_async_token token, void*,
                      kovo_async_token* returnAsyncToken) {
  return guardedWithToken(instance, returnAsyncToken,
                          [&](KovoEngine& engine, kovo_async_token& newToken) {
                            return engine.resume(token, newToken);
                          });
}

// --- Settings and caches ------------------------------------------------------------------------

void kovoSetMultipartUploadThreshold(kovo_instance instance, uint64_t threshold) {
  guardedVoid(instance, [&](KovoEngine& engine) { engine.setMultipartUploadThreshold(threshold); });
}

kovo_error kovoSetSystemProxyCredentials(kovo_instance instance, const char* username,
                                         const char* password) {
  return guarded(instance, [&](KovoEngine& engine) {
    return engine.setSystemProxyCredentials(username, password);
  });
}

kovo_error kovoSetTargetDataRates(kovo_instance instance, uint64_t uploadRate,
                                  uint64_t downloadRate) {
  return guarded(instance, [&](KovoEngine& engine) {
    return engine.setTargetDataRates(uploadRate, downloadRate);
  });
}

kovo_error kovoSetWorkerPoolUpperLimit(kovo_instance instance, uint32_t limit) {
  return guarded(instance,
                 [&](KovoEngine& engine) { return engine.setWorkerPoolUpperLimit(limit); });
}

void kovoClearCache(kovo_instance instance) {
  guardedVoid(instance, [](KovoEngine& engine) { engine.clearCache(); });
}

void kovoSetLogLevel(uint32_t level) {
  kovo::setLogLevel(level);
}

// --- Texts --------------------------------------------------------------------------------------

const char* kovoErrorString(kovo_error code) {
  return kovo::errorText(code);
}

const char* kovoHTTPStatusString(int32_t httpStatus) {
  return kovo::httpStatusText(httpStatus);
}

const char* kovoVersion(void) {
  return "1.3.0.000";
}

// --- Beyond the fixed interface -----------------------------------------------------------------

void kovoSetHardwareConcurrency(uint32_t figure) {
  kovo::setHardwareConcurrency(figure);
}

kovo_error kovoSetS3Endpoint(const char* domain) {
  try {
    return kovo::setS3Endpoint(domain);
  } catch (...) {
    return KOVO_ERROR_UNKNOWN;
  }
}
