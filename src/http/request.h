#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "core/abstract_transfer.h"
#include "core/kovo_range.h"
#include "core/work.h"

namespace kovo {

class ClientCallbackHandler;
class HttpClient;

// What a request prepares: where its body comes from and where its response goes.
enum Operation : std::uint32_t {
  OP_DOWNLOAD = 0,
  OP_DOWNLOAD_RANGE = 1,
  OP_UPLOAD_FILE = 2,
  OP_DOWNLOAD_FILE = 3,
  OP_DOWNLOAD_FILE_RANGE = 4,
  OP_SEND_REQUEST = 5,
  OP_UPLOAD_MEMORY = 6,
  OP_UPLOAD_INITIALISE = 7,
  OP_UPLOAD_FINALISE = 8,
};

// One HTTP exchange as a unit of work.
class Request : public Work {
 public:
  virtual KovoNumberedRange getRange() const = 0;
  // What the sink has collected (protocol answers, error bodies).
  virtual void getResponseBody(std::string& body) const = 0;
  // Length of the request body. Before run this makes the source if need be.
  virtual std::uint64_t getBodyLength() = 0;
  virtual AbstractTransfer& getTransfer() = 0;
  virtual bool isRangedDownload() const = 0;
  virtual void setRange(const KovoNumberedRange& range) = 0;
  virtual kovo_http_verb getVerb() const = 0;
  virtual void setProxyCredentials(const std::string& username, const std::string& password) = 0;

  // Body bytes of a successful response (2xx, not ignored) that reached the sink. For a range they
  // start at getRange().start.
  virtual std::uint64_t getDeliveredLength() const = 0;
  // The response carried the whole resource from its first byte, complete: a 200 or 203, whether or
  // not a range had been asked for.
  virtual bool deliveredWholeResource() const = 0;
  // A successful response was accepted and read to its end.
  virtual bool isComplete() const = 0;
  // The final answer was a status of 400 to 599 which the request did not get past. Its body went
  // to the client (or, where chunking is allowed, into the error report), never to the output file.
  virtual bool failedWithHttpStatus() const = 0;
};

// filePath is empty for memory transfers. transfer outlives the request, and so does httpClient;
// null: the process's own client.
std::unique_ptr<Request> createRequest(AbstractTransfer& transfer, kovo_http_verb verb,
                                       const std::string& url, Operation operation,
                                       const std::string& filePath, bool discardResponseBody,
                                       std::shared_ptr<ClientCallbackHandler> callbackHandler,
                                       HttpClient* httpClient = nullptr);
std::unique_ptr<Request> createRangedRequest(
    AbstractTransfer& transfer, kovo_http_verb verb, const std::string& url, Operation operation,
    const std::string& filePath, const KovoNumberedRange& range, bool discardResponseBody,
    std::shared_ptr<ClientCallbackHandler> callbackHandler, HttpClient* httpClient = nullptr);

}  // namespace kovo
