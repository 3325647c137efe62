#include "transfers/chunked_transfer.h"

#include <cxxabi.h>

#include <algorithm>
#include <cstdint>
#include <stdexcept>
#include <utility>

#include "core/assertion.h"
#include "core/kovo_settings.h"
#include "core/null_work.h"
#include "http/request.h"
#include "log/kovo_log.h"

namespace kovo {

ChunkedTransfer::ChunkedTransfer(KovoEngine& engine, TransferContext* context, std::string url,
                                 kovo_chunking_mode mode, std::uint32_t priority,
                                 std::shared_ptr<ClientCallbackHandler> callbackHandler)
    : Transfer(engine, context, std::move(url), mode, priority, std::move(callbackHandler)) {}

// --- Handing out and taking back work -----------------------------------------------------------

void ChunkedTransfer::recordException(const char* operation, const char* what) {
  setError(makeKovoError(KOVO_ERROR_OPERATION_ERROR,
                         what == nullptr
                             ? std::string(operation) + ": Unexpected Exception Thrown"
                             : std::string(operation) + " - Unexpected exception caught: " + what));
  setState(failing);
}

Work* ChunkedTransfer::getNextWork() {
  ScopedLock guard(_mainLock);
  std::unique_ptr<Work> work;
  if (!isCancelled()) {
    if (isPausing()) {
      return nullptr;  // chosen by a worker just before the pause took it out of its queue
    }
    if (getAvailableWorkCount() != 0) {
      try {
        work = createWork();
      } catch (const std::exception& exception) {
        recordException("getNextWork", exception.what());
      } catch (abi::__forced_unwind&) {
        throw;
      } catch (...) {
        recordException("getNextWork", nullptr);
      }
    }
  }
  if (work == nullptr) {
    if (getActiveWorkCount() != 0 || isFinished()) {
      return nullptr;
    }
    work = std::make_unique<NullWork>();
  }
  Work* handedOut = work.get();
  addActiveWork(std::move(work));
  return handedOut;
}

std::unique_ptr<Work> ChunkedTransfer::createWorkForBadState() {
  const std::string state = std::to_string(getState());
  KOVO_LOG(KOVO_LOG_ERROR, "kovo::ChunkedTransfer::getNextWork",
           "WChunkedTransfer::getNextWork Unexpected State: %d", static_cast<int>(getState()));
  KOVO_ASSERT(false, "WChunkedTransfer::getNextWork Unexpected State");
  setError(makeKovoError(KOVO_ERROR_OPERATION_ERROR,
                         "WChunkedTransfer::getNextWork Unexpected State: " + state));
  setState(failing);
  return std::make_unique<NullWork>();
}

std::uint32_t ChunkedTransfer::getAvailableWorkCount() const {
  const State state = getState();
  // A cancelled transfer hands out nothing but its end: promising more would have a worker choose
  // it again and again, past others that have work.
  if (!isPausing() && !isCancelled()) {
    switch (state) {
      case init:
      case first_chunk:
      case last_chunk:
      case finalise:
      case single_request:
        return 1;
      case transferring_chunks: {
        std::uint32_t remaining = getNumberOfChunksRemaining();
        const auto* factory = const_cast<ChunkedTransfer*>(this)->getMimeSourceFactory();
        if (remaining != 0 && factory != nullptr && factory->sendsLastChunkAlone()) {
          --remaining;
        }
        if (remaining != 0) {
          return remaining;
        }
        break;
      }
      default:
        break;
    }
  }
  return getActiveWorkCount() != 0 || state == finished ? 0 : 1;
}

bool ChunkedTransfer::isFailed(const Work& work) const {
  if (const auto* request = dynamic_cast<const Request*>(&work)) {
    if (request->isComplete()) {
      return false;
    }
  }
  const std::uint32_t status = work.getHttpStatus();
  return work.getErrorCode() != 0 || status < 200 || status > 299;
}

void ChunkedTransfer::reportPresent(std::uint64_t bytes) {
  if (bytes != 0) {
    addNotification([this, bytes] { _callbackHandler->invokeProgressCallback(bytes); });
  }
}

bool ChunkedTransfer::onFinish(Work* work) {
  KOVO_ASSERT(work, "work");
  ScopedLock guard(_mainLock);
  KOVO_ASSERT(work->isFinished(), "work->isFinished()");
  try {
    const bool isRequest = dynamic_cast<Request*>(work) != nullptr;
    if (hasError() || isCancelled()) {
      if (getState() != finished) {
        setState(failing);
      }
    } else if (isRequest && work->getErrorCode() != 0 && !isPausing() && isFailed(*work)) {
      // The client asked for a retry, but the pause that was to bring it about is gone.
      requeueFailedWork(*work);
      removeActiveWork(work);
      return false;
    } else if (isPausing() && isRequest && isFailed(*work)) {
      return failedWorkWhilePausing(work);
    } else if (isRequest) {
      setIntermediateStatus(work->getHttpStatus());
    }
    changeStateOnFinish(*work);
  } catch (const std::exception& exception) {
    recordException("onFinish", exception.what());
    setState(finishWithErrorOrCancel());
  } catch (abi::__forced_unwind&) {
    throw;
  } catch (...) {
    recordException("onFinish", nullptr);
    setState(finishWithErrorOrCancel());
  }
  removeActiveWork(work);
  if (isFinished() && getActiveWorkCount() != 0) {
    KOVO_LOG(KOVO_LOG_CRITICAL, "kovo::ChunkedTransfer::onFinish",
             "ChunkedTransfer in finished state with non zero active work count: %d",
             static_cast<int>(getActiveWorkCount()));
    KOVO_ASSERT(false, "!finished || getActiveWorkCount() == 0");
  }
  if (!isFinished() && isPausing() && getActiveWorkCount() == 0) {
    completePause();
    return true;
  }
  return isFinished();
}

void ChunkedTransfer::changeStateOnFinish(Work& work) {
  const State state = getState();
  switch (state) {
    case waiting_init:
      setState(transferInitFinished(work));
      break;
    case waiting_first_chunk:
      setState(firstChunkFinished());
      break;
    case transferring_chunks:
      if (!hasAvailableRanges()) {
        KOVO_LOG(KOVO_LOG_WARN, "kovo::ChunkedTransfer::changeStateOnFinish",
                 "Transfer in transferring_chunks state with no available ranges");
        setState(finishing_chunks);
      }
      setState(chunkFinished(&work));
      break;
    case finishing_chunks:
      setState(chunkFinished(&work));
      break;
    case waiting_last_chunk:
      setState(lastChunkFinished());
      break;
    case waiting_finalise:
    case waiting_single_request:
    case failing:
    case finished:
      if (getActiveWorkCount() <= 1 && state != finished) {
        setState(finish());
      }
      break;
    default:
      KOVO_LOG(KOVO_LOG_ERROR, "kovo::ChunkedTransfer::changeStateOnFinish",
               "Unexpected state on finishing upload: %d", static_cast<int>(state));
      setError(makeKovoError(KOVO_ERROR_OPERATION_ERROR,
                             "Unexpected state on finishing upload: " + std::to_string(state)));
      setState(failing);
      setState(finishWithErrorOrCancel());
      break;
  }
  // An error recorded by the step itself, with nothing else running, ends the transfer here.
  if (getState() == failing && getActiveWorkCount() <= 1) {
    setState(finish());
  }
}

// --- The end ------------------------------------------------------------------------------------

void ChunkedTransfer::notifyFinal(Outcome outcome) {
  addNotification([this, outcome, error = getError()] {
    settle(outcome);
    switch (outcome) {
      case Outcome::Cancelled:
        _callbackHandler->invokeCancellationCallback();
        break;
      case Outcome::Failed:
        _callbackHandler->invokeErrorCallback(error);
        break;
      default:
        _callbackHandler->invokeCompletionCallback();
        break;
    }
    if (!wasAbandoned()) {
      tidyUp(outcome);
    }
  });
}

ChunkedTransfer::State ChunkedTransfer::finish() {
  if (!hasError() && !isCancelled()) {
    verifyComplete();
  }
  if (!hasError() && !isCancelled()) {
    // A cancel may still slip in before the outcome is decided; notifyFinal reports what was.
    notifyFinal(decideOutcome());
    return finished;
  }
  return finishWithErrorOrCancel();
}

ChunkedTransfer::State ChunkedTransfer::finishWithErrorOrCancel() {
  const std::size_t active = getActiveWorkCount();
  KOVO_ASSERT(active > 0, "activeWorkCount > 0");
  if (active > 1) {
    return getState();
  }
  notifyFinal(decideOutcome());
  return finished;
}

bool ChunkedTransfer::isFinished() const {
  return getState() == finished;
}

// --- Pause and retry ----------------------------------------------------------------------------

void ChunkedTransfer::requeueFailedWork(Work& work) {
  const State state = getState();
  if (const auto* request = dynamic_cast<const Request*>(&work)) {
    if (state >= first_chunk && state <= waiting_last_chunk) {
      requeueRange(request->getRange());
    }
  }
  if (!isPausing()) {
    setState(getResumeState());
  }
}

bool ChunkedTransfer::failedWorkWhilePausing(Work* work) {
  requeueFailedWork(*work);
  removeActiveWork(work);
  if (getActiveWorkCount() != 0) {
    return false;
  }
  completePause();
  return true;
}

void ChunkedTransfer::completePause() {
  setState(getResumeState());
  if (!shouldRestartWhenDrained()) {
    addNotification([this] { settlePause(); });
  }
  pauseHasDrained();
}

void ChunkedTransfer::onPauseDrained() {
  ScopedLock guard(_mainLock);
  completePause();
}

ChunkedTransfer::State ChunkedTransfer::getResumeState() {
  const State state = getState();
  switch (state) {
    case init:
    case first_chunk:
    case transferring_chunks:
    case last_chunk:
    case finalise:
    case single_request:
      return state;  // a request is due and none is out: the same one is due afterwards
    case waiting_init:
      return init;
    case waiting_first_chunk:
      return first_chunk;
    case finishing_chunks:
      return transferring_chunks;
    case waiting_last_chunk:
      return last_chunk;
    case waiting_finalise:
      return finalise;
    case waiting_single_request:
      return single_request;
    default:
      setError(makeKovoError(KOVO_ERROR_OPERATION_ERROR,
                             "Unexpected resume state for upload: " + std::to_string(state)));
      return failing;
  }
}

bool ChunkedTransfer::shouldRetryChunk(std::int32_t chunkNumber, std::shared_ptr<KovoError> error,
                                       std::shared_ptr<KovoHTTPError> httpError) {
  if (isCancelled() || !isChunkingAllowed()) {
    return false;
  }
  kovo_chunk_type chunkType = KOVO_CHUNK_TYPE_CHUNK;
  {
    ScopedLock guard(_mainLock);
    const State state = getState();
    if (!((state >= waiting_init && state <= waiting_last_chunk) || state == waiting_finalise)) {
      return false;
    }
    chunkType = getChunkType();
  }
  // What the server sent with its refusal; without any, what is known of the failure.
  const std::string& reason = !httpError->details.empty()  ? httpError->details
                              : httpError->httpStatus != 0 ? httpError->message
                                                           : error->message;
  const bool retry = _callbackHandler->invokeChunkErrorRetryCallback(
      chunkType, static_cast<std::uint32_t>(chunkNumber), error, reason, httpError->httpStatus);
  if (retry) {
    // Pauses until the running requests have drained; the scheduler then queues it again.
    _engine.pause(getToken(), true);
  }
  return retry;
}

void ChunkedTransfer::getChunkHeaders(const std::string& url, std::int32_t chunkNumber,
                                      HeaderList& headers) {
  HeaderList given;
  _callbackHandler->invokeChunkHeadersCallback(getChunkType(), url.c_str(),
                                               static_cast<std::uint32_t>(chunkNumber), given);
  HeaderList kept = filterHeaders(given);
  headers.insert(headers.end(), std::make_move_iterator(kept.begin()),
                 std::make_move_iterator(kept.end()));
}

// --- Ranges -------------------------------------------------------------------------------------

void ChunkedTransfer::setRange(const KovoRange& range) {
  _nextOffset = range.start;
  Transfer::setRange(range);
}

std::uint64_t ChunkedTransfer::getChunkSize() const {
  const auto length = static_cast<std::uint64_t>(getRange().length);
  if (!isChunkingAllowed()) {
    return length;
  }
  const std::uint64_t size = _engine.getSettings().chunkSize;
  auto* factory = const_cast<ChunkedTransfer*>(this)->getMimeSourceFactory();
  return factory == nullptr ? size : factory->adjustChunkSize(length, size);
}

void ChunkedTransfer::makeFirstRange(KovoNumberedRange& range) {
  const std::int64_t start = getRange().start;
  const auto size = static_cast<std::int64_t>(getChunkSize());
  range = KovoNumberedRange(start, std::min(size, INT64_MAX - start), 0);
  _nextOffset = start + range.length;
}

void ChunkedTransfer::createRanges(bool firstRangeTaken) {
  const KovoRange range = getRange();
  const auto chunkSize = static_cast<std::int64_t>(getChunkSize());
  ScopedLock guard(_rangeLock);
  if (range.length == 0) {
    _ranges.emplace_back(_nextOffset, 0, 0);
    return;
  }
  const std::int64_t end = range.start + range.length;
  if (!firstRangeTaken) {
    _nextOffset = range.start;
  } else if (_nextOffset == range.start) {
    _nextOffset = end;
  }
  if (_nextOffset >= end) {
    return;
  }
  const std::int64_t rest = end - _nextOffset;
  KOVO_ASSERT(chunkSize > 0, "numberedRange.length > 0");
  if (chunkSize <= 0 || (rest - 1) / chunkSize >= INT32_MAX - 1) {
    throw std::length_error("More chunks than can be numbered");
  }
  _uncut = KovoNumberedRange(_nextOffset, rest, firstRangeTaken ? 1 : 0);
  _cutSize = chunkSize;
  _nextOffset = end;
}

void ChunkedTransfer::clearRanges() {
  ScopedLock guard(_rangeLock);
  _ranges.clear();
  _uncut.length = 0;
}

bool ChunkedTransfer::hasRangesRemaining() const {
  ScopedLock guard(_rangeLock);
  return !_ranges.empty() || _uncut.length != 0;
}

bool ChunkedTransfer::hasAvailableRanges() const {
  return hasRangesRemaining();
}

bool ChunkedTransfer::popNextRange(KovoNumberedRange& range) {
  ScopedLock guard(_rangeLock);
  if (!_ranges.empty()) {
    range = _ranges.front();
    _ranges.pop_front();
    return true;
  }
  if (_uncut.length == 0) {
    return false;
  }
  range = KovoNumberedRange(_uncut.start, std::min(_cutSize, _uncut.length), _uncut.number);
  _uncut.start += range.length;
  _uncut.length -= range.length;
  ++_uncut.number;
  return true;
}

void ChunkedTransfer::requeueRange(const KovoNumberedRange& range) {
  ScopedLock guard(_rangeLock);
  const auto position =
      std::find_if(_ranges.begin(), _ranges.end(),
                   [&range](const KovoNumberedRange& held) { return held.number >= range.number; });
  _ranges.insert(position, range);
}

std::uint32_t ChunkedTransfer::getNumberOfChunksRemaining() const {
  ScopedLock guard(_rangeLock);
  const std::int64_t uncut = _uncut.length == 0 ? 0 : (_uncut.length - 1) / _cutSize + 1;
  return static_cast<std::uint32_t>(_ranges.size()) + static_cast<std::uint32_t>(uncut);
}

}  // namespace kovo
