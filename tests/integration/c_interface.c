#include "integration/c_interface.h"

#include <kovo/kovo.h>
#include <kovo/kovo_ext.h>
#include <stddef.h>
#include <string.h>

/* The layout and the numbers are part of the binary interface. */
_Static_assert(sizeof(kovo_error) == 4, "kovo_error");
_Static_assert(sizeof(kovo_async_token) == 4, "kovo_async_token");
_Static_assert(sizeof(kovo_http_verb) == 4, "kovo_http_verb");
_Static_assert(sizeof(kovo_chunking_mode) == 4, "kovo_chunking_mode");
_Static_assert(sizeof(kovo_header) == 9216, "kovo_header");
_Static_assert(offsetof(kovo_header, value) == 1024, "kovo_header.value");
_Static_assert(sizeof(kovo_header_ref) == 2 * sizeof(void*), "kovo_header_ref");
#if UINTPTR_MAX == UINT64_MAX
_Static_assert(sizeof(kovo_config) == 88, "kovo_config");
_Static_assert(offsetof(kovo_config, workQueuePolicy) == 0, "workQueuePolicy");
_Static_assert(offsetof(kovo_config, maxActiveWorkProviders) == 4, "maxActiveWorkProviders");
_Static_assert(offsetof(kovo_config, workerPoolLowerLimit) == 8, "workerPoolLowerLimit");
_Static_assert(offsetof(kovo_config, workerPoolUpperLimit) == 12, "workerPoolUpperLimit");
_Static_assert(offsetof(kovo_config, chunkSize) == 16, "chunkSize");
_Static_assert(offsetof(kovo_config, getCacheMaxSize) == 24, "getCacheMaxSize");
_Static_assert(offsetof(kovo_config, progressInterval) == 32, "progressInterval");
_Static_assert(offsetof(kovo_config, chunkUploads) == 36, "chunkUploads");
_Static_assert(offsetof(kovo_config, chunkDownloads) == 40, "chunkDownloads");
_Static_assert(offsetof(kovo_config, adaptiveStrategy) == 44, "adaptiveStrategy");
_Static_assert(offsetof(kovo_config, getCacheEnabled) == 48, "getCacheEnabled");
_Static_assert(offsetof(kovo_config, adaptiveInitialThreadCount) == 52, "initial threads");
_Static_assert(offsetof(kovo_config, reserved2) == 56, "reserved2");
_Static_assert(offsetof(kovo_config, timeoutBase) == 60, "timeoutBase");
_Static_assert(offsetof(kovo_config, basePath) == 64, "basePath");
_Static_assert(offsetof(kovo_config, tryResumableTransfer) == 72, "tryResumableTransfer");
_Static_assert(offsetof(kovo_config, reserved3) == 76, "reserved3");
_Static_assert(offsetof(kovo_config, reserved4) == 80, "reserved4");
#endif
_Static_assert(KOVO_HTTP_PUT == 0 && KOVO_HTTP_POST == 1 && KOVO_HTTP_GET == 2 &&
                   KOVO_HTTP_DELETE == 3 && KOVO_HTTP_HEAD == 4 && KOVO_HTTP_OPTIONS == 5 &&
                   KOVO_HTTP_PATCH == 6,
               "verbs");
_Static_assert(KOVO_CHUNKING_DEFAULT == 0 && KOVO_CHUNKING_SERIAL == 1 && KOVO_CHUNKING_ALWAYS == 2,
               "chunking modes");
_Static_assert(KOVO_SERVER_TYPE_DEFAULT == 0 && KOVO_SERVER_TYPE_S3 == 1 &&
                   KOVO_SERVER_TYPE_SYNC_SERVICE == 2,
               "server types");
_Static_assert(KOVO_CHUNK_TYPE_INIT == 0 && KOVO_CHUNK_TYPE_CHUNK == 1 &&
                   KOVO_CHUNK_TYPE_FINALISE == 2 && KOVO_CHUNK_TYPE_SINGLE == 3,
               "chunk types");
_Static_assert(KOVO_LOG_ALWAYS == 0 && KOVO_LOG_CRITICAL == 1 && KOVO_LOG_ERROR == 2 &&
                   KOVO_LOG_WARN == 3 && KOVO_LOG_INFO == 4 && KOVO_LOG_DEBUG == 5 &&
                   KOVO_LOG_TRACE == 6 && KOVO_LOG_NONE == 7,
               "log levels");
_Static_assert(NOTHING_ASYNC_TOKEN == 0, "NOTHING_ASYNC_TOKEN");

static uint32_t finals;

static void onError(kovo_instance instance, uint32_t code, const char* message, void* context) {
  (void)instance, (void)code, (void)message, (void)context;
  ++finals;
}
static void onFinal(kovo_instance instance, void* context) {
  (void)instance, (void)context;
  ++finals;
}
static void onStatusLine(kovo_instance instance, const char* version, uint32_t status,
                         const char* reason, void* context) {
  (void)instance, (void)version, (void)status, (void)reason, (void)context;
}

const char* checkInterfaceFromC(void) {
  kovo_config config;
  memset(&config, 0, sizeof config);
  kovo_instance instance = kovoCreate(&config);
  if (instance == NULL) return "kovoCreate";
  if (kovoRegisterErrorCallback(instance, onError) != KOVO_ERROR_NONE) return "error callback";
  if (kovoRegisterCompletionCallback(instance, onFinal) != KOVO_ERROR_NONE) return "completion";
  if (kovoRegisterCancellationCallback(instance, onFinal) != KOVO_ERROR_NONE) return "cancellation";
  if (kovoRegisterStatusLineCallback(instance, onStatusLine) != KOVO_ERROR_NONE) return "status";
  kovo_async_token token = 7;
  if (kovoSendRequest(instance, KOVO_HTTP_GET, "http://127.0.0.1:1/", 0, 0, NULL, &token) !=
          KOVO_ERROR_NONE ||
      token == NOTHING_ASYNC_TOKEN) {
    return "kovoSendRequest";
  }
  if (kovoDestroy(&instance) != KOVO_ERROR_NONE || instance != NULL) return "kovoDestroy";
  if (finals != 1) return "one final callback";
  if (kovoDestroy(&instance) != KOVO_ERROR_INSTANCE_RELEASED) return "kovoDestroy again";
  return NULL;
}
