#pragma once

#include <functional>
#include <memory>
#include <string>

#include "http/request.h"

namespace kovo {

// A request with what its transfer does on the worker's thread around it, no lock held: prepare or
// look at the file before, look at the answer afterwards.
class SteppedRequest : public Request {
 public:
  // before (may be null) answers whether the request is to be sent at all; after (may be null)
  // returns the kovo_error that the exchange failed with in the eyes of the protocol, 0 for none.
  // Neither throws.
  SteppedRequest(std::unique_ptr<Request> request, std::function<bool()> before,
                 std::function<kovo_error(Request&)> after);

  void run() override;
  void cancel() override { _request->cancel(); }
  bool isFinished() const override { return _request->isFinished(); }
  std::shared_ptr<WorkProvider> getParent() const override { return _request->getParent(); }
  void setParent(std::shared_ptr<WorkProvider> parent) override;
  std::uint32_t getHttpStatus() const override { return _request->getHttpStatus(); }
  std::uint32_t getErrorCode() const override;
  bool isTimedOut() const override { return _request->isTimedOut(); }

  KovoNumberedRange getRange() const override { return _request->getRange(); }
  void getResponseBody(std::string& body) const override { _request->getResponseBody(body); }
  std::uint64_t getBodyLength() override { return _request->getBodyLength(); }
  AbstractTransfer& getTransfer() override { return _request->getTransfer(); }
  bool isRangedDownload() const override { return _request->isRangedDownload(); }
  void setRange(const KovoNumberedRange& range) override { _request->setRange(range); }
  kovo_http_verb getVerb() const override { return _request->getVerb(); }
  void setProxyCredentials(const std::string& username, const std::string& password) override {
    _request->setProxyCredentials(username, password);
  }
  std::uint64_t getDeliveredLength() const override { return _request->getDeliveredLength(); }
  bool deliveredWholeResource() const override { return _request->deliveredWholeResource(); }
  bool isComplete() const override;
  bool failedWithHttpStatus() const override { return _request->failedWithHttpStatus(); }

 private:
  const std::unique_ptr<Request> _request;
  const std::function<bool()> _before;
  const std::function<kovo_error(Request&)> _after;
  kovo_error _errorCode = KOVO_ERROR_NONE;
};

}  // namespace kovo
