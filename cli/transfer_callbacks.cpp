#include "transfer.h"

namespace kovo::cli {

// The C functions the engine calls; each leads to the transfer that is its context.
class TransferCallbacks {
 public:
  static Transfer& of(void* context) { return *static_cast<Transfer*>(context); }

  static void completion(kovo_instance, void* context) { of(context).onCompletion(); }
  static void cancellation(kovo_instance, void* context) {
    of(context).end(Transfer::End::kCancelled);
  }
  static void error(kovo_instance, std::uint32_t code, const char* message, void* context) {
    of(context).onError(code, message);
  }
  static void statusLine(kovo_instance, const char*, std::uint32_t status, const char* reason,
                         void* context) {
    of(context).onStatusLine(status, reason);
  }
  static void responseHeaders(kovo_instance, const kovo_header_ref* headers, std::uint32_t count,
                              void* context) {
    of(context).onResponseHeaders(headers, count);
  }
  static void responseBody(kovo_instance, std::uint64_t offset, const std::uint8_t* data,
                           std::uint64_t size, void* context) {
    of(context).onResponseBody(offset, data, size);
  }
  static void requestBody(kovo_instance, std::uint64_t offset, std::uint8_t* buffer,
                          std::uint64_t* bytesRead, std::uint64_t maxLength, void* context) {
    *bytesRead = of(context).onRequestBody(offset, buffer, maxLength);
  }
  static void requestBodyLength(kovo_instance, std::uint64_t* length, void* context) {
    *length = of(context).bodyLength();
  }
  static void progress(kovo_instance, std::uint64_t bytes, std::uint64_t total, void* context) {
    of(context).onProgress(bytes, total);
  }
  static void monitor(kovo_instance, std::uint32_t type, const void* data, std::uint64_t length,
                      void* context) {
    of(context).onMonitor(type, data, length);
  }
  static void requestHeaders(kovo_instance, kovo_header* headers, std::uint32_t capacity,
                             std::uint32_t* count, void* context) {
    of(context).onRequestHeaders(headers, capacity, count);
  }
  static void chunkHeaders(kovo_instance, kovo_chunk_type type, const char*, std::uint32_t number,
                           kovo_header*, std::uint32_t, std::uint32_t* count, void* context) {
    *count = 0;
    of(context).onRequestStarted(type, number);
  }
  static void certificatePolicy(kovo_instance, const char*, std::uint32_t* validateChain,
                                void* context) {
    *validateChain = of(context)._options.validateCertificates ? 1 : 0;
  }
  static void timeout(kovo_instance, std::uint32_t* seconds, void* context) {
    *seconds = of(context)._options.timeoutSeconds;
  }
  static void serverType(kovo_instance, std::uint32_t* type, void* context) {
    *type = of(context)._options.serverType;
  }
  static std::int32_t chunkErrorRetry(kovo_instance, kovo_chunk_type type, std::uint32_t number,
                                      std::uint32_t code, std::uint32_t httpStatus,
                                      const char* message, void* context) {
    return of(context).onRequestFailed({type, number, code, httpStatus, message}) ? 1 : 0;
  }
};

void Transfer::registerCallbacks(kovo_instance instance) {
  using C = TransferCallbacks;
  kovoRegisterCompletionCallback(instance, &C::completion);
  kovoRegisterCancellationCallback(instance, &C::cancellation);
  kovoRegisterErrorCallback(instance, &C::error);
  kovoRegisterStatusLineCallback(instance, &C::statusLine);
  kovoRegisterResponseHeaderCallback(instance, &C::responseHeaders);
  kovoRegisterResponseBodyCallback(instance, &C::responseBody);
  kovoRegisterRequestBodyCallback(instance, &C::requestBody, &C::requestBodyLength);
  kovoRegisterProgressCallback(instance, &C::progress);
  kovoRegisterMonitorCallback(instance, &C::monitor);
  kovoRegisterAddHeaderCallback(instance, &C::requestHeaders);
  kovoRegisterAddChunkHeaderCallback(instance, &C::chunkHeaders);
  kovoRegisterSSLCertificatePolicyCallback(instance, &C::certificatePolicy);
  kovoRegisterSetTimeoutCallback(instance, &C::timeout);
  kovoRegisterSetServerTypeCallback(instance, &C::serverType);
  kovoRegisterChunkErrorRetryCallback(instance, &C::chunkErrorRetry);
}

}  // namespace kovo::cli
