#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "body/data_sink.h"
#include "body/data_source.h"
#include "cache/http_get_cache.h"
#include "core/header_list.h"
#include "core/lock.h"
#include "http/request.h"
#include "http/retry_params.h"
#include "http/source_request_body.h"
#include "platform/http_client.h"

namespace kovo {

// One HTTP exchange with everything around it: where the body comes from, where the response goes,
// the repetition of an attempt after some statuses, and the report of failures to the transfer. It
// runs on one worker thread from beginning to end.
class WKovoRequest : public Request {
 public:
  // transfer and httpClient outlive the request; url is not empty.
  WKovoRequest(AbstractTransfer& transfer, kovo_http_verb verb, std::string url,
               Operation operation, std::string filePath, bool discardResponseBody,
               std::shared_ptr<ClientCallbackHandler> callbackHandler, HttpClient& httpClient);
  ~WKovoRequest() override;

  void run() override;
  void cancel() override {}
  bool isFinished() const override { return _finished; }
  std::shared_ptr<WorkProvider> getParent() const override { return _parent; }
  void setParent(std::shared_ptr<WorkProvider> parent) override;
  std::uint32_t getHttpStatus() const override { return _statusCode; }
  std::uint32_t getErrorCode() const override { return _errorCode; }
  bool isTimedOut() const override { return _errorCode == KOVO_ERROR_TIMEOUT; }

  KovoNumberedRange getRange() const override;
  void getResponseBody(std::string& body) const override;
  std::uint64_t getBodyLength() override;
  AbstractTransfer& getTransfer() override { return _parentTransfer; }
  bool isRangedDownload() const override;
  void setRange(const KovoNumberedRange& range) override;
  kovo_http_verb getVerb() const override { return _httpVerb; }
  void setProxyCredentials(const std::string& username, const std::string& password) override;
  std::uint64_t getDeliveredLength() const override { return _deliveredLength; }
  bool deliveredWholeResource() const override { return _deliveredWholeResource; }
  bool isComplete() const override { return _complete; }
  bool failedWithHttpStatus() const override { return !_errorMessage.empty(); }

  // One attempt, from preparation to the end of the response.
  void startOperation();
  // Forgets the last attempt.
  void restoreGroundState();
  // Drops the range: the next attempt asks for the whole resource, for the same destination.
  void becomeWholeDownload();

 private:
  // Preparation (request_preparation.cpp).
  bool prepareOperation();
  std::unique_ptr<DataSource> makeSource();
  std::unique_ptr<DataSource> makeFileBody();
  std::unique_ptr<DataSink> makeSink();
  bool serveFromCache();
  bool isCacheUsable() const;
  std::string getFinalUrl();
  std::string joinParameters();
  std::string getCacheKey();
  bool buildMessage(HttpRequestMessage& message, std::optional<SourceRequestBody>& body);
  bool addHeaders(HeaderList& headers);
  bool addRequestHeader(HeaderList& headers, const std::string& name, const std::string& value);
  bool addRequestHeaders(HeaderList& headers, const HeaderList& added);

  // The exchange and its response (response_handling.cpp).
  void exchange(const HttpRequestMessage& message, const SourceRequestBody* body);
  bool processStatus(std::uint32_t status);
  bool validateResponse(const HttpResponseHead& head);
  void recordHttpError(const HttpResponseHead& head, const char* text);
  bool processHeaders(const HttpResponseHead& head);
  bool checkLengths(const HeaderList& headers);
  bool checkContentRange(const std::string& value);
  bool isUnaskedPart() const;
  void takeHeaders(const HeaderList& headers);
  void readData();
  std::size_t getReadSize(std::size_t& room);
  bool isTooLong();
  bool isBodyDropped() const;
  void flushReadBuffer();
  void finishBody();
  void startCaching();
  bool isSuccess() const;
  void checkCompletion();
  std::string getRequestedRangeText() const;
  // Always false.
  bool reportInvalidContentRange(const std::string& value);

  // Reports (wkovo_request.cpp).
  void notifyError(const std::string& message, kovo_error code);
  void doNotifyError(const std::string& message, kovo_error code);
  void doNotifyHTTPError(const std::string& message, std::uint32_t status, const std::string& body);
  bool isCancelled() const { return _parentTransfer.isCancelled(); }
  void endAttempt();

  const std::string _inURL;
  const std::shared_ptr<ClientCallbackHandler> _callbackHandler;
  const kovo_http_verb _httpVerb;
  const bool _discardResponseBody;
  const std::string _filePath;
  AbstractTransfer& _parentTransfer;
  HttpClient& _client;
  const Interrupt _interrupt;

  std::shared_ptr<WorkProvider> _parent;
  Operation _operation;
  // Other requests of the transfer may ask for it: written under the lock, by the thread that runs
  // the request, which reads it without.
  mutable RecursiveLock _rangeLock;
  KovoNumberedRange _range{0, 0, -1};
  bool _isRanged = false;
  RetryParams _retryParams;
  std::string _proxyUsername;
  std::string _proxyPassword;

  // Read by other threads while the request runs.
  std::atomic<bool> _finished{true};

  // One attempt's state.
  std::unique_ptr<DataSource> _source;
  std::unique_ptr<DataSink> _sink;
  std::unique_ptr<HttpExchange> _httpClient;
  HeaderList _responseHeaders;
  bool _noErrorYet = true;
  std::string _formParameters;
  bool _gzipEncoded = false;
  // The request carries a Range, be it this class's or the client's.
  bool _asksForPart = false;
  // The body has some content coding.
  bool _encoded = false;
  // What the Content-Range of a 206 answer announces.
  std::optional<std::uint64_t> _promisedLength;
  std::uint64_t _receivedLength = 0;
  ByteBlock _readBuffer;
  std::size_t _readPosition = 0;
  // The body so far, when it is to be stored in the cache.
  std::optional<BlockList> _cacheBody;

  // The outcome.
  std::uint32_t _statusCode = 0;
  std::uint32_t _errorCode = KOVO_ERROR_NONE;
  // The HTTP error that the last attempt ended with, empty for none.
  std::string _errorMessage;
  std::uint64_t _deliveredLength = 0;
  bool _deliveredWholeResource = false;
  bool _complete = false;
};

}  // namespace kovo
