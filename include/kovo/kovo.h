/**
 * @file
 * KOVO: parallel, resumable HTTP transfers behind a plain C interface.
 *
 * Conventions, told once and valid for every declaration below:
 *
 *   - **Texts** are NUL-terminated UTF-8. Texts passed in are copied before the call returns; texts
 *     passed to a callback live only while the callback runs; returned texts are static.
 *   - **Errors** are kovo_error codes, 0 (KOVO_ERROR_NONE) for success. A null instance gives
 *     KOVO_ERROR_INSTANCE_NOT_INITIALISED. No exception ever crosses this interface, in either
 *     direction: an exception thrown by a callback is logged.
 *   - **Threads**: every function may be called from any thread, and from inside any callback,
 *     except that kovoDestroy called from inside a callback of any engine, or the logging callback,
 *     returns KOVO_ERROR_UNKNOWN and changes nothing.
 *   - **Blocking**: starting, cancelling, pausing and resuming never wait for the network.
 *     kovoCreate opens the local databases; kovoDestroy waits for running callbacks and stops every
 *     transfer within a second.
 *   - **Callbacks** run on the library's threads (and, for transfers that kovoDestroy ends, on the
 *     thread that calls it), never while a library lock is held that another function of this
 *     interface needs. Callbacks of different transfers, and of different requests of one parallel
 *     transfer, may run at the same time. Every accepted transfer ends with exactly one final
 *     callback: completion, error or cancellation; nothing follows it. Only a transfer that lies
 *     paused when its engine is destroyed gets none: the paused callback was its last.
 *   - **Numbers**: sizes and offsets are bytes. All integers have fixed widths; kovo_config's
 *     layout is part of the binary interface.
 */
#ifndef KOVO_KOVO_H_
#define KOVO_KOVO_H_

#include <stdint.h>

/** Marks what the library exports. */
#if defined(__GNUC__)
#define KOVO_API __attribute__((visibility("default")))
#else
#define KOVO_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

/** One engine. Opaque; passed back as the first argument of every transfer callback. */
typedef struct kovo_engine_instance* kovo_instance;

/** Names one transfer from its start call to its final callback, across pause and resume. */
typedef uint32_t kovo_async_token;

/** Names no transfer. */
#define NOTHING_ASYNC_TOKEN UINT32_C(0)

/** A result or error code. The numbers never change. */
typedef uint32_t kovo_error;

/** The values of kovo_error. */
enum {
  KOVO_ERROR_NONE = 0,                     /**< success */
  KOVO_ERROR_UNKNOWN = 1,                  /**< the library failed, e.g. for want of memory */
  KOVO_ERROR_INSTANCE_NOT_INITIALISED = 2, /**< the instance is null */
  KOVO_ERROR_INSTANCE_RELEASED = 3,        /**< kovoDestroy: the handle is null already */
  KOVO_ERROR_INVALID_PARAMETERS = 4,       /**< an argument, or a token that names no transfer */
  KOVO_ERROR_CANCELLED = 5,                /**< cancelled already, or ended by kovoDestroy */
  KOVO_ERROR_NOT_IMPLEMENTED = 6,          /**< not produced */
  KOVO_ERROR_DOWNLOAD_FAILED = 7,   /**< an answer that is not the resource, or another version */
  KOVO_ERROR_INVALID_HTTP_VERB = 8, /**< an upload with a verb that carries no body */
  KOVO_ERROR_UPLOAD_FAILED_TO_READ_FILE = 9,       /**< not produced */
  KOVO_ERROR_WRITE_STREAM_FAILURE = 10,            /**< the output file could not be written */
  KOVO_ERROR_READ_STREAM_FAILURE = 11,             /**< the input could not be read */
  KOVO_ERROR_INVALID_ENDPOINT = 12,                /**< not produced */
  KOVO_ERROR_INVALID_BYTE_RANGE = 13,              /**< a range beyond signed 64-bit offsets */
  KOVO_ERROR_COULD_NOT_CREATE_REQUEST_STREAM = 14, /**< not produced */
  KOVO_ERROR_NO_URL = 15,                          /**< the URL is null or empty */
  KOVO_ERROR_INVALID_OUTPUT_FILE = 16,      /**< no output path, or the file cannot be created */
  KOVO_ERROR_NO_REQUEST_BODY_CALLBACK = 17, /**< kovoUploadFromMemory without the callback */
  KOVO_ERROR_INVALID_INPUT_FILE = 18,       /**< no input path, or no such file */
  KOVO_ERROR_OPERATION_ERROR = 19,          /**< a malformed URL, header or answer */
  KOVO_ERROR_PROXY_ERROR = 20,              /**< not produced */
  KOVO_ERROR_UNTRUSTED_SERVER_CERTIFICATE = 21, /**< not produced: see KOVO_ERROR_PLATFORM_STATUS */
  KOVO_ERROR_NO_COMPLETION_CALLBACK = 22,       /**< start call: not registered */
  KOVO_ERROR_NO_ERROR_CALLBACK = 23,            /**< start call: not registered */
  KOVO_ERROR_NO_CANCELLATION_CALLBACK = 24,     /**< start call: not registered */
  KOVO_ERROR_NO_RESPONSE_BODY_CALLBACK = 25,    /**< download to memory: not registered */
  KOVO_ERROR_NO_CONTENT_LENGTH_CALLBACK = 26,   /**< kovoUploadFromMemory: not registered */
  KOVO_ERROR_NOT_ENOUGH_DATA = 27,              /**< a body shorter than announced */
  KOVO_ERROR_TOO_MUCH_DATA = 28,                /**< a body longer than announced */
  KOVO_ERROR_TIMEOUT = 29,                      /**< no progress for the inactivity timeout */
  KOVO_ERROR_RESUME_FAILED = 30,           /**< kovoResume: no paused transfer has this token */
  KOVO_ERROR_FILE_MODIFIED = 31,           /**< the uploaded file changed while it was sent */
  KOVO_ERROR_NETWORK_ERROR = 32,           /**< not produced: see KOVO_ERROR_PLATFORM_STATUS */
  KOVO_ERROR_INSUFFICIENT_DISK_SPACE = 33, /**< disk, quota or file size limit reached */
  KOVO_ERROR_FILE_LOCKED = 34,             /**< the file is in use */
  KOVO_ERROR_INVALID_FILE_NAME = 35,       /**< a folder, or a name no file can have */
  KOVO_ERROR_FILE_NOT_FOUND = 36,          /**< the file is gone */
  KOVO_ERROR_PARENT_FOLDER_NOT_FOUND = 37, /**< the folder of the file does not exist */
  KOVO_ERROR_NOT_CANCELLABLE = 38,         /**< kovoCancel: the effect can no longer be undone */
  KOVO_ERROR_PATH_TOO_LONG = 39,           /**< a path the file system does not take */
  KOVO_ERROR_CHUNK_HTTP_ERROR = 40,        /**< to the chunk-retry callback: the server refused */
  KOVO_ERROR_CHUNK_RETRY_FAILED = 41, /**< the server refused, and nobody asked for another try */
  KOVO_ERROR_NO_STATUS_LINE_CALLBACK = 42, /**< start call: not registered */
  KOVO_ERROR_SUBMIT_FAILED = 43,           /**< the engine is shutting down */
  /** And above: a status of the platform below the engine. 112007 stands for every failure below
   * HTTP (name, connection, TLS, protocol); the message tells which. */
  KOVO_ERROR_PLATFORM_STATUS = 100000
};

/** An HTTP status code, as kovoHTTPStatusString classifies it. */
typedef int32_t kovo_http_status;

/** An HTTP method. */
typedef uint32_t kovo_http_verb;

/** The values of kovo_http_verb. */
enum {
  KOVO_HTTP_PUT = 0,     /**< PUT */
  KOVO_HTTP_POST = 1,    /**< POST */
  KOVO_HTTP_GET = 2,     /**< GET */
  KOVO_HTTP_DELETE = 3,  /**< DELETE */
  KOVO_HTTP_HEAD = 4,    /**< HEAD */
  KOVO_HTTP_OPTIONS = 5, /**< OPTIONS */
  KOVO_HTTP_PATCH = 6    /**< PATCH */
};

/** Whether a transfer is cut into chunks that run in parallel. */
typedef int32_t kovo_chunking_mode;

/** The values of kovo_chunking_mode. */
enum {
  KOVO_CHUNKING_DEFAULT = 0, /**< as chunkDownloads or chunkUploads of kovo_config says */
  KOVO_CHUNKING_SERIAL = 1,  /**< one request */
  KOVO_CHUNKING_ALWAYS = 2   /**< in chunks, whatever kovo_config says */
};

/** How an upload speaks to its server; the answer of the set-server-type callback. */
typedef uint32_t kovo_server_type;

/** The values of kovo_server_type. */
enum {
  KOVO_SERVER_TYPE_DEFAULT = 0,     /**< the body in one plain request */
  KOVO_SERVER_TYPE_S3 = 1,          /**< S3 multipart upload */
  KOVO_SERVER_TYPE_SYNC_SERVICE = 2 /**< a sync service and the storage provider it names */
};

/** What a request of a transfer carries; passed to the chunk callbacks. */
typedef uint32_t kovo_chunk_type;

/** The values of kovo_chunk_type. */
enum {
  KOVO_CHUNK_TYPE_INIT = 0,     /**< initialisation of a chunked upload */
  KOVO_CHUNK_TYPE_CHUNK = 1,    /**< one range of a download or one part of an upload */
  KOVO_CHUNK_TYPE_FINALISE = 2, /**< finalisation of a chunked upload */
  KOVO_CHUNK_TYPE_SINGLE = 3    /**< the whole resource */
};

/** How important a log message is; a level lets through itself and everything below it. */
typedef uint32_t kovo_log_level;

/** The values of kovo_log_level. */
enum {
  KOVO_LOG_ALWAYS = 0,   /**< cannot be turned off */
  KOVO_LOG_CRITICAL = 1, /**< the library is in trouble */
  KOVO_LOG_ERROR = 2,    /**< something failed */
  KOVO_LOG_WARN = 3,     /**< the default */
  KOVO_LOG_INFO = 4,     /**< steps of the transfers and the worker counts */
  KOVO_LOG_DEBUG = 5,    /**< more */
  KOVO_LOG_TRACE = 6,    /**< everything */
  KOVO_LOG_NONE = 7      /**< as a level to set: ALWAYS only */
};

/**
 * Creation options, read once by kovoCreate. A number outside its accepted range keeps the default;
 * a flag is set only by the value 1. So a zero-filled record turns every flag off: start from
 * the defaults below when only one option is to change.
 * 88 bytes on a 64-bit machine.
 */
typedef struct kovo_config {
  /** Changes behaviour: how admitted transfers share the workers. 0 (default): earlier ones first
   * (user policy); 1: in rotation (bulk policy). */
  uint32_t workQueuePolicy;
  /** Most transfers served at once in each queue. 1..1024, default 4. */
  uint32_t maxActiveWorkProviders;
  /** Fewest workers the engine falls back to. 1..workerPoolUpperLimit, default 2. */
  uint32_t workerPoolLowerLimit;
  /** Most workers. 1..64, default 16. */
  uint32_t workerPoolUpperLimit;
  /** Bytes per chunk. 1..52428800, default 2097152. */
  uint64_t chunkSize;
  /** Bytes the cache of range answers may hold. 1..4294967295, default 536870912. */
  uint64_t getCacheMaxSize;
  /** Least milliseconds between progress callbacks of a transfer, and between monitor callbacks of
   * the engine; 0: neither. Default 2000. */
  uint32_t progressInterval;
  uint32_t chunkUploads;     /**< flag, default 0 */
  uint32_t chunkDownloads;   /**< flag, default 1 */
  uint32_t adaptiveStrategy; /**< flag, default 1: the worker count follows measured throughput */
  uint32_t getCacheEnabled;  /**< flag, default 1 */
  /** Workers the adaptive strategy starts with. 1..64, default 8. */
  uint32_t adaptiveInitialThreadCount;
  uint32_t reserved2; /**< flag, default 0; not read */
  /** Seconds of the inactivity timeout in force when the set-timeout callback answers 0, with every
   * worker running; each worker that does not run adds 30. Without that callback the timeout is
   * 120 s whatever this says. Default 30. */
  uint32_t timeoutBase;
  /** Copied; files always live in the user's data directory. Default null. */
  const char* basePath;
  uint32_t tryResumableTransfer; /**< flag, default 1 */
  uint32_t reserved3;            /**< not read */
  uint32_t reserved4;            /**< not read */
} kovo_config;

/** One header or parameter filled in by a callback: an array of these arrives zero-filled. */
typedef struct kovo_header {
  char name[1024];  /**< NUL-terminated unless full; a pair without a name is not sent */
  char value[8192]; /**< NUL-terminated unless full; a pair without a value is not sent */
} kovo_header;

/** One response header; both texts live only during the callback. */
typedef struct kovo_header_ref {
  const char* name;  /**< as received */
  const char* value; /**< as received */
} kovo_header_ref;

/**
 * @name Callbacks
 * The last argument is the transfer's context, as given to its start call; the library never looks
 * into it.
 * @{
 */

/** Bytes of a response body delivered to memory. offset is their position in the resource. Calls of
 * one parallel download may overlap and come in any order. */
typedef void (*kovo_response_body_callback)(kovo_instance instance, uint64_t offset,
                                            const uint8_t* data, uint64_t size, void* context);
/** Final. message explains the failure: the text of the code, then the particulars. */
typedef void (*kovo_error_callback)(kovo_instance instance, uint32_t code, const char* message,
                                    void* context);
/** Asks for up to maxLength bytes of the request body from offset on; set *bytesRead. Asked again
 * from 0 when the request has to be repeated. */
typedef void (*kovo_request_body_callback)(kovo_instance instance, uint64_t offset, uint8_t* buffer,
                                           uint64_t* bytesRead, uint64_t maxLength, void* context);
/** Asks for the length of the request body, before the first request-body callback; may be asked
 * more than once, and has to answer the same. */
typedef void (*kovo_request_body_content_length_callback)(kovo_instance instance, uint64_t* length,
                                                          void* context);
/** Final. The transfer is complete: a downloaded file holds the whole resource. */
typedef void (*kovo_completion_callback)(kovo_instance instance, void* context);
/** At most once per transfer: the first answer's. httpVersion is "None", "Http10", "Http11" or
 * "Http20". */
typedef void (*kovo_status_line_callback)(kovo_instance instance, const char* httpVersion,
                                          uint32_t statusCode, const char* reasonPhrase,
                                          void* context);
/** Final. The transfer was cancelled by kovoCancel. */
typedef void (*kovo_cancellation_callback)(kovo_instance instance, void* context);
/** A pause has drained; the transfer waits for kovoResume, kovoCancel or kovoDestroy. */
typedef void (*kovo_paused_callback)(kovo_instance instance, void* context);
/** bytesTransferred is a running total; totalBytes is 0 while the size is unknown. The total falls
 * when bytes of a failed request will be moved again. */
typedef void (*kovo_progress_callback)(kovo_instance instance, uint64_t bytesTransferred,
                                       uint64_t totalBytes, void* context);
/** Asked at most once per transfer: fill up to capacity (64) records, set *count. */
typedef void (*kovo_request_header_callback)(kovo_instance instance, kovo_header* headers,
                                             uint32_t capacity, uint32_t* count, void* context);
/** Asked at most once per transfer: query (or form) parameters; capacity is 32. */
typedef void (*kovo_add_parameters_callback)(kovo_instance instance, kovo_header* parameters,
                                             uint32_t capacity, uint32_t* count, void* context);
/** The headers of the first response, and once more those of a later failed one. */
typedef void (*kovo_response_header_callback)(kovo_instance instance,
                                              const kovo_header_ref* headers, uint32_t count,
                                              void* context);
/** type 1: a 56-byte adaptive record; type 2: a 48-byte fixed record (little-endian). */
typedef void (*kovo_monitor_callback)(kovo_instance instance, uint32_t type, const void* data,
                                      uint64_t length, void* context);
/** Set *validateChain to 0 to accept any certificate for any host in this transfer; it arrives as
 * 1. Asked at most once per transfer, also for http, since a redirect may lead to https. */
typedef void (*kovo_ssl_certificate_policy_callback)(kovo_instance instance, const char* url,
                                                     uint32_t* validateChain, void* context);
/** Seconds without any progress after which a request fails with KOVO_ERROR_TIMEOUT; 0 keeps the
 * engine's default (timeoutBase of kovo_config). Asked at most once per transfer. */
typedef void (*kovo_set_timeout_callback)(kovo_instance instance, uint32_t* timeoutSeconds,
                                          void* context);
/** Headers for one request of a download or an upload, asked each time it is sent; capacity is
 * 64. */
typedef void (*kovo_add_chunk_header_callback)(kovo_instance instance, kovo_chunk_type chunkType,
                                               const char* url, uint32_t chunkNumber,
                                               kovo_header* headers, uint32_t capacity,
                                               uint32_t* count, void* context);
/** A request of a chunked transfer failed. Nonzero: send it again once the running ones have
 * drained; 0: the transfer fails. httpStatus is 0 without a response. */
typedef int32_t (*kovo_chunk_error_retry_callback)(kovo_instance instance,
                                                   kovo_chunk_type chunkType, uint32_t chunkNumber,
                                                   uint32_t errorCode, uint32_t httpStatus,
                                                   const char* message, void* context);
/** Set *serverType (a kovo_server_type, 0 on entry). Asked at most once per upload. */
typedef void (*kovo_set_server_type_callback)(kovo_instance instance, uint32_t* serverType,
                                              void* context);
/** Process-wide, on any thread. While one is registered, nothing is written to the log file. */
typedef void (*kovo_logging_callback)(uint32_t level, const char* message, const char* function,
                                      const char* file, uint32_t line, void* loggingContext);

/** @} */

/**
 * @name Engine
 * @{
 */

/** Creates an engine; null config: all defaults. Null when it cannot be created. */
KOVO_API kovo_instance kovoCreate(const kovo_config* config);

/** Destroys *instanceRef and sets it to null. Queued and running transfers end first, each with an
 * error callback of code KOVO_ERROR_CANCELLED. KOVO_ERROR_INSTANCE_RELEASED for a null handle. */
KOVO_API kovo_error kovoDestroy(kovo_instance* instanceRef);

/** @} */

/**
 * @name Registration
 * Null clears. Register before starting transfers that need the callback; a later change also
 * reaches transfers that run already.
 * @{
 */

/** Where downloads to memory deliver, and the bodies of answers to uploads and requests. */
KOVO_API kovo_error kovoRegisterResponseBodyCallback(kovo_instance instance,
                                                     kovo_response_body_callback callback);
/** Required by every transfer. */
KOVO_API kovo_error kovoRegisterErrorCallback(kovo_instance instance, kovo_error_callback callback);
/** Both at once; required by kovoUploadFromMemory. */
KOVO_API kovo_error kovoRegisterRequestBodyCallback(
    kovo_instance instance, kovo_request_body_callback requestBodyCallback,
    kovo_request_body_content_length_callback requestBodyContentLengthCallback);
/** Required by every transfer. */
KOVO_API kovo_error kovoRegisterCompletionCallback(kovo_instance instance,
                                                   kovo_completion_callback callback);
/** Required by every transfer. */
KOVO_API kovo_error kovoRegisterStatusLineCallback(kovo_instance instance,
                                                   kovo_status_line_callback callback);
/** Required by every transfer. */
KOVO_API kovo_error kovoRegisterCancellationCallback(kovo_instance instance,
                                                     kovo_cancellation_callback callback);
/** Without it a pause drains all the same. */
KOVO_API kovo_error kovoRegisterPausedCallback(kovo_instance instance,
                                               kovo_paused_callback callback);
/** See progressInterval of kovo_config. */
KOVO_API kovo_error kovoRegisterProgressCallback(kovo_instance instance,
                                                 kovo_progress_callback callback);
/** See progressInterval of kovo_config. */
KOVO_API kovo_error kovoRegisterMonitorCallback(kovo_instance instance,
                                                kovo_monitor_callback callback);
/** Headers for every request of a transfer. */
KOVO_API kovo_error kovoRegisterAddHeaderCallback(kovo_instance instance,
                                                  kovo_request_header_callback callback);
/** Parameters for every URL of a transfer. */
KOVO_API kovo_error kovoRegisterAddParametersCallback(kovo_instance instance,
                                                      kovo_add_parameters_callback callback);
/** What the server answered, beside the status line. */
KOVO_API kovo_error kovoRegisterResponseHeaderCallback(kovo_instance instance,
                                                       kovo_response_header_callback callback);
/** Without it every certificate is validated. */
KOVO_API kovo_error kovoRegisterSSLCertificatePolicyCallback(
    kovo_instance instance, kovo_ssl_certificate_policy_callback callback);
/** Without it the inactivity timeout is 120 s. */
KOVO_API kovo_error kovoRegisterSetTimeoutCallback(kovo_instance instance,
                                                   kovo_set_timeout_callback callback);
/** Headers for single requests of a transfer. */
KOVO_API kovo_error kovoRegisterAddChunkHeaderCallback(kovo_instance instance,
                                                       kovo_add_chunk_header_callback callback);
/** Without it the first request that fails ends its transfer. */
KOVO_API kovo_error kovoRegisterChunkErrorRetryCallback(kovo_instance instance,
                                                        kovo_chunk_error_retry_callback callback);
/** Without it uploads are plain. */
KOVO_API kovo_error kovoRegisterSetServerTypeCallback(kovo_instance instance,
                                                      kovo_set_server_type_callback callback);
/** Process-wide; always 0. Forgotten when the last engine is destroyed. It does not wait: a message
 * that another thread has under way still reaches the former callback, so keep that callback's
 * context until the engines are gone. */
KOVO_API kovo_error kovoRegisterLoggingCallback(kovo_logging_callback callback,
                                                void* loggingContext);

/** @} */

/**
 * @name Transfers
 * Each writes *asyncToken: the new token on success, NOTHING_ASYNC_TOKEN otherwise. Completion,
 * status-line, error and cancellation callbacks must be registered. A larger priority runs earlier.
 * @{
 */

/** Downloads url into the file outputPath, replacing it. A path that ends in "._kstmp" names a
 * partial download: one that was interrupted goes on where it stopped. */
KOVO_API kovo_error kovoDownload(kovo_instance instance, const char* url, const char* outputPath,
                                 kovo_chunking_mode mode, uint32_t priority, void* context,
                                 kovo_async_token* asyncToken);
/** As kovoDownload; expectedSize is recorded on the engine (the last call wins). */
KOVO_API kovo_error kovoDownloadWithSize(kovo_instance instance, const char* url,
                                         const char* outputPath, kovo_chunking_mode mode,
                                         uint32_t priority, uint64_t expectedSize, void* context,
                                         kovo_async_token* asyncToken);
/** Downloads url to the response-body callback. */
KOVO_API kovo_error kovoDownloadToMemory(kovo_instance instance, const char* url,
                                         kovo_chunking_mode mode, uint32_t priority, void* context,
                                         kovo_async_token* asyncToken);
/** As above, only rangeLength bytes from rangeStart on; a length of 0 means to the end. */
KOVO_API kovo_error kovoDownloadRangeToMemory(kovo_instance instance, const char* url,
                                              uint64_t rangeStart, uint64_t rangeLength,
                                              kovo_chunking_mode mode, uint32_t priority,
                                              void* context, kovo_async_token* asyncToken);
/** Uploads the file inputPath with PUT, POST or PATCH. */
KOVO_API kovo_error kovoUpload(kovo_instance instance, kovo_http_verb verb, const char* url,
                               const char* inputPath, kovo_chunking_mode mode, uint32_t priority,
                               void* context, kovo_async_token* asyncToken);
/** Uploads the body that the request-body callbacks supply. */
KOVO_API kovo_error kovoUploadFromMemory(kovo_instance instance, kovo_http_verb verb,
                                         const char* url, uint32_t priority, void* context,
                                         kovo_async_token* asyncToken);
/** Sends one request; a PUT, POST or PATCH takes its body from the request-body callbacks. Nonzero
 * acceptGzip asks for a gzip-encoded answer and inflates it. */
KOVO_API kovo_error kovoSendRequest(kovo_instance instance, kovo_http_verb verb, const char* url,
                                    uint32_t priority, uint32_t acceptGzip, void* context,
                                    kovo_async_token* asyncToken);

/** @} */

/**
 * @name Control by token
 * @{
 */

/** 0, KOVO_ERROR_CANCELLED (already), KOVO_ERROR_NOT_CANCELLABLE or KOVO_ERROR_INVALID_PARAMETERS
 * (unknown token). The cancellation callback follows within a second. */
KOVO_API kovo_error kovoCancel(kovo_instance instance, kovo_async_token token);
/** 0, KOVO_ERROR_CANCELLED or KOVO_ERROR_INVALID_PARAMETERS. Running requests finish; then the
 * paused callback comes, or the final one when nothing was left to do. */
KOVO_API kovo_error kovoPause(kovo_instance instance, kovo_async_token token);
/** 0 and the token in *returnAsyncToken, or KOVO_ERROR_RESUME_FAILED. Resuming while the pause
 * still drains is accepted: the transfer goes on once it has. reserved is not read. */
KOVO_API kovo_error kovoResume(kovo_instance instance, kovo_async_token token, void* reserved,
                               kovo_async_token* returnAsyncToken);

/** @} */

/**
 * @name Settings and caches
 * @{
 */

/** Bytes above which sync-service uploads go in parts; 0 keeps the process-wide threshold. */
KOVO_API void kovoSetMultipartUploadThreshold(kovo_instance instance, uint64_t threshold);
/** Credentials for the system's proxy. 0, or KOVO_ERROR_INVALID_PARAMETERS for an empty username.
 */
KOVO_API kovo_error kovoSetSystemProxyCredentials(kovo_instance instance, const char* username,
                                                  const char* password);
/** KiB per second over the whole engine, 0 = no limit. */
KOVO_API kovo_error kovoSetTargetDataRates(kovo_instance instance, uint64_t uploadRate,
                                           uint64_t downloadRate);
/** 0, or KOVO_ERROR_INVALID_PARAMETERS below the lower limit. The thread pool keeps its size. */
KOVO_API kovo_error kovoSetWorkerPoolUpperLimit(kovo_instance instance, uint32_t limit);
/** Empties the cache of range answers. */
KOVO_API void kovoClearCache(kovo_instance instance);
/** Process-wide; values above 7 count as 7 (none). The first engine of a process sets the level
 * anew, so call this after kovoCreate. */
KOVO_API void kovoSetLogLevel(uint32_t level);

/** @} */

/**
 * @name Texts
 * @{
 */

/** The text of a code; "Unrecognised kovo_error" for 30, 31, 38, 39, 43 and unknown ones. */
KOVO_API const char* kovoErrorString(kovo_error code);
/** The class of a status, e.g. "HTTP Status 4xx (Client Error)". */
KOVO_API const char* kovoHTTPStatusString(int32_t httpStatus);
/** "1.3.0.000". */
KOVO_API const char* kovoVersion(void);

/** @} */

#ifdef __cplusplus
}
#endif

#endif /* KOVO_KOVO_H_ */
