#include "transfers/stepped_request.h"

#include <utility>

namespace kovo {

SteppedRequest::SteppedRequest(std::unique_ptr<Request> request, std::function<bool()> before,
                               std::function<kovo_error(Request&)> after)
    : _request(std::move(request)), _before(std::move(before)), _after(std::move(after)) {}

void SteppedRequest::run() {
  if (_before != nullptr && !_before()) {
    return;
  }
  _request->run();
  if (_after != nullptr) {
    _errorCode = _after(*_request);
  }
}

void SteppedRequest::setParent(std::shared_ptr<WorkProvider> parent) {
  _request->setParent(std::move(parent));
}

std::uint32_t SteppedRequest::getErrorCode() const {
  return _errorCode != KOVO_ERROR_NONE ? static_cast<std::uint32_t>(_errorCode)
                                       : _request->getErrorCode();
}

bool SteppedRequest::isComplete() const {
  return _errorCode == KOVO_ERROR_NONE && _request->isComplete();
}

}  // namespace kovo
