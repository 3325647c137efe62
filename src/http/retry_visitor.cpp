#include "http/retry_visitor.h"

#include "http/play_request_visitor.h"
#include "http/wkovo_request.h"

namespace kovo {

void PlayRequestVisitor::visit(WKovoRequest& request) {
  request.startOperation();
}

bool RetryVisitor::shouldProceed(RetryParams& params, WKovoRequest& request, std::uint32_t status) {
  if (status < 400) {
    params.retry = params.proxyRetry = params.proxyAuthRetry = false;
    return true;
  }
  if (params.retry && params.attempts >= RetryParams::kLimit) {
    return false;
  }
  switch (status) {
    case 401:
      params.retry = params.proxyRetry = params.proxyAuthRetry = false;
      return false;
    case 407:
      params.retry = params.proxyRetry = params.proxyAuthRetry =
          request.getTransfer().hasProxyCredentials();
      return params.retry;
    case 416:
      // An empty resource answers this to its first chunk. Asked for as a whole, at most once: the
      // plain download has no range and does not come here again.
      if (request.isRangedDownload() && !request.getTransfer().hasRange() &&
          request.getRange().start == 0) {
        --params.attempts;
        params.retry = true;
        request.becomeWholeDownload();
        return true;
      }
      params.retry = false;
      return false;
    default:
      params.retry = false;
      return false;
  }
}

}  // namespace kovo
