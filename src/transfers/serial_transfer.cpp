#include "transfers/serial_transfer.h"

#include <cxxabi.h>

#include <utility>

#include "core/assertion.h"
#include "core/null_work.h"
#include "http/kovo_http_utils.h"
#include "http/request.h"
#include "log/kovo_log.h"
#include "transfers/decimal.h"
#include "transfers/stepped_request.h"

namespace kovo {

SerialTransfer::SerialTransfer(KovoEngine& engine, TransferContext* context, kovo_http_verb verb,
                               std::string url, kovo_chunking_mode mode, std::uint32_t priority,
                               bool gzipWanted,
                               std::shared_ptr<ClientCallbackHandler> callbackHandler)
    : Transfer(engine, context, std::move(url), mode, priority, std::move(callbackHandler)),
      _verb(verb) {
  _gzipWanted = gzipWanted;
}

std::unique_ptr<Work> SerialTransfer::makeRequest() {
  std::unique_ptr<Request> request = createRequest(*this, _verb, getUrl(), OP_SEND_REQUEST,
                                                   getFilePath(), false, _callbackHandler);
  if (!KovoHttpUtils::mayCarryBody(_verb)) {
    return request;
  }
  // The client is asked for the length by the worker that sends it, not under the locks held here.
  Request& inner = *request;
  return std::make_unique<SteppedRequest>(
      std::move(request),
      [this, &inner] {
        try {
          setExpectedLength(inner.getBodyLength());
          return true;
        } catch (const std::exception& exception) {
          setError(makeKovoError(
              KOVO_ERROR_OPERATION_ERROR,
              std::string("getNextWork - Unexpected exception caught: ") + exception.what()));
          return false;
        }
      },
      nullptr);
}

Work* SerialTransfer::getNextWork() {
  ScopedLock guard(_mainLock);
  if (_state == Finished || getActiveWorkCount() != 0) {
    return nullptr;
  }
  std::unique_ptr<Work> work;
  if (hasError() || isCancelled()) {
    _state = TRANSFER_STATE_FINISHING;
  } else if (isPausing()) {
    return nullptr;  // chosen by a worker just before the pause took it out of its queue
  } else if (_state != Initial) {
    KOVO_LOG(KOVO_LOG_ERROR, "kovo::SerialTransfer::getNextWork",
             "WSerialTransfer::getNextWork: Unexpected state %d", static_cast<int>(_state.load()));
    setError(makeKovoError(KOVO_ERROR_OPERATION_ERROR,
                           "Unexpected state in getNextWork: " + std::to_string(_state.load())));
    _state = TRANSFER_STATE_FINISHING;
  } else {
    try {
      work = makeRequest();
      _state = TRANSFER_STATE_WAITING_RESPONSE;
    } catch (const std::exception& exception) {
      setError(makeKovoError(
          KOVO_ERROR_OPERATION_ERROR,
          std::string("getNextWork - Unexpected exception caught: ") + exception.what()));
      _state = TRANSFER_STATE_FINISHING;
    } catch (abi::__forced_unwind&) {
      throw;
    } catch (...) {
      setError(
          makeKovoError(KOVO_ERROR_OPERATION_ERROR, "getNextWork: Unexpected Exception Thrown"));
      _state = TRANSFER_STATE_FINISHING;
    }
  }
  if (work == nullptr) {
    work = std::make_unique<NullWork>();
  }
  Work* handedOut = work.get();
  addActiveWork(std::move(work));
  return handedOut;
}

void SerialTransfer::notifyFinal() {
  switch (decideOutcome()) {
    case Outcome::Cancelled:
      addNotification([this] { _callbackHandler->invokeCancellationCallback(); });
      break;
    case Outcome::Failed:
      addNotification([this, error = getError()] { _callbackHandler->invokeErrorCallback(error); });
      break;
    default:
      addNotification([this] { _callbackHandler->invokeCompletionCallback(); });
      break;
  }
}

bool SerialTransfer::onFinish(Work* work) {
  ScopedLock guard(_mainLock);
  KOVO_ASSERT(this->getActiveWorkCount(), "this->getActiveWorkCount()");
  KOVO_ASSERT(work, "work");
  KOVO_ASSERT(TRANSFER_STATE_WAITING_RESPONSE == _state || TRANSFER_STATE_FINISHING == _state,
              "TRANSFER_STATE_WAITING_RESPONSE == _state || TRANSFER_STATE_FINISHING == _state");
  const auto failed = [this](const std::string& text) {
    KOVO_LOG(KOVO_LOG_ERROR, "kovo::SerialTransfer::onFinish", "%s", text.c_str());
    addNotification([this, text] {
      _callbackHandler->invokeErrorCallback(makeKovoError(KOVO_ERROR_OPERATION_ERROR, text));
    });
  };
  try {
    notifyFinal();
  } catch (const std::exception& exception) {
    failed(std::string("onFinish - Unexpected exception caught: ") + exception.what());
  } catch (abi::__forced_unwind&) {
    throw;
  } catch (...) {
    failed("onFinish - Unknown exception caught");
  }
  _state = Finished;
  removeActiveWork(work);
  if (getActiveWorkCount() != 0) {
    KOVO_LOG(KOVO_LOG_CRITICAL, "kovo::SerialTransfer::onFinish",
             "Serial Transfer in finished state with non zero active work count: %d",
             static_cast<int>(getActiveWorkCount()));
    KOVO_ASSERT(false, "!finished || getActiveWorkCount() == 0");
  }
  return isFinished();
}

bool SerialTransfer::isFinished() const {
  return _state == Finished;
}

std::uint32_t SerialTransfer::getAvailableWorkCount() const {
  switch (_state.load()) {
    case Initial:
      return 1;
    case Finished:
      return 0;
    default:
      return getActiveWorkCount() == 0 ? 1 : 0;
  }
}

bool SerialTransfer::isCancellable() const {
  switch (_state.load()) {
    case Initial:
      return true;
    case TRANSFER_STATE_WAITING_RESPONSE:
      // Once the server has answered, a request with an effect has had it.
      return _verb == KOVO_HTTP_GET || _verb == KOVO_HTTP_HEAD || _verb == KOVO_HTTP_OPTIONS ||
             getResponsesReceived() == 0;
    default:
      return false;
  }
}

void SerialTransfer::onPauseDrained() {
  ScopedLock guard(_mainLock);
  pauseHasDrained();
}

void SerialTransfer::processResponseHeader(Request&, const Header& header) {
  if (KovoHttpUtils::equalsIgnoreCase(header.first, http::kContentLength)) {
    setExpectedLength(parseDecimal(header.second));
  }
}

}  // namespace kovo
