#include "platform/linux/curl_exchange.h"

#include <algorithm>
#include <cstring>
#include <new>
#include <utility>

namespace kovo {

namespace {

using Milliseconds = std::chrono::milliseconds;
using SteadyClock = std::chrono::steady_clock;

constexpr std::uint32_t kDefaultLimitSeconds = 120;
constexpr int kMostRedirects = 10;
// How often a wait looks at the interrupt.
constexpr Milliseconds kSlice(50);
// What keeping the connection of an unwanted response is worth; a new one costs a few round trips.
constexpr std::size_t kMostDrained = 64UL * 1024;
constexpr Milliseconds kLongestDrain(250);
// What is held of a body that arrives with its head; more of it waits in the connection.
constexpr std::size_t kMostHeldByHead = 64UL * 1024;

[[noreturn]] void fail(const std::string& text) {
  throw HttpFailure(HttpFailure::kPlatformFailure, text);
}

bool hasHeader(const HeaderList& headers, const char* name) {
  return std::any_of(headers.begin(), headers.end(), [name](const Header& header) {
    return curl_strequal(header.first.c_str(), name) != 0;
  });
}

}  // namespace

CurlExchange::CurlExchange(HttpSessionPool& pool, Interrupt interrupt)
    : _pool(pool), _interrupt(std::move(interrupt)) {}

CurlExchange::~CurlExchange() {
  giveBackSession();
}

void CurlExchange::giveBackSession() noexcept {
  if (_session) {
    _session->finish();
    _pool.give(std::move(_session));
  }
}

const HttpResponseHead& CurlExchange::send(const HttpRequestMessage& message) {
  _hop = std::make_unique<HttpHop>(message);
  _limit = std::chrono::seconds(message.timeoutSeconds != 0 ? message.timeoutSeconds
                                                            : kDefaultLimitSeconds);
  _session =
      _pool.take({message.validateCertificateChain, message.proxyUsername, message.proxyPassword},
                 _hop->origin());
  for (int redirects = 0;; ++redirects) {
    awaitHead();
    const std::uint32_t status = _head.head().status;
    const std::string* found = _head.find("Location");
    if (!HttpHop::isRedirect(status) || !found || found->empty()) {
      break;
    }
    if (redirects == kMostRedirects) {
      fail("More than 10 redirects followed (" + _hop->host() + ")");
    }
    const std::string location = *found;
    drain();
    _hop->redirect(status, location);
    _session->noteOrigin(_hop->origin());
  }
  _sendReturned = true;
  if (_session->result()) {
    settle();
  }
  return _head.head();
}

void CurlExchange::begin(bool freshConnection) {
  _session->finish();
  curl_slist* list = nullptr;
  const auto append = [&](const std::string& line) {
    curl_slist* longer = curl_slist_append(list, line.c_str());
    if (!longer) {
      curl_slist_free_all(list);
      throw std::bad_alloc();
    }
    list = longer;
  };
  for (const Header& header : _hop->headers()) {
    append(header.second.empty() ? header.first + ";" : header.first + ": " + header.second);
  }
  for (const char* own : {"Accept", "Expect"}) {
    if (!hasHeader(_hop->headers(), own)) {
      append(std::string(own) + ":");  // not the one libcurl would add
    }
  }
  _head.reset();
  _uploaded = 0;
  _bodyBegan = false;
  _discards = false;
  _overflow.clear();
  const HttpRequestBody* body = _hop->body();
  const auto bodyLength = body ? std::optional<std::uint64_t>(body->length()) : std::nullopt;
  _headers.reset(list);
  _session->begin({_hop->verb(), _hop->url(), list, bodyLength, _limit, freshConnection}, *this);
}

void CurlExchange::awaitHead() {
  bool retried = false;
  while (true) {
    begin(retried);
    runUntil([this] { return hasHead(); });
    if (shouldUseProxyDigest()) {
      drain();
      _session->useProxyDigest();
      _hop->rewindBody();
      continue;
    }
    if (hasHead()) {
      break;
    }
    if (retried || !diedUnused()) {
      const CURLcode code = *_session->result();
      const std::string text = failureText(code);
      _session.reset();
      if (code == CURLE_OPERATION_TIMEDOUT) {
        // libcurl's own limit for connecting, when this thread came late to look at its own.
        throw HttpFailure(KOVO_ERROR_TIMEOUT, text);
      }
      fail(text);
    }
    retried = true;
    _hop->rewindBody();
  }
  // The request's body belongs to the caller once send has returned. After an error the rest of it
  // is not sent.
  if (_head.head().status < 300) {
    runUntil([this] { return isBodySent(); });
  }
}

bool CurlExchange::hasHead() const {
  if (!_head.isComplete()) {
    return false;
  }
  // With Digest libcurl answers the proxy's first 407 by itself, and another head follows. So it
  // does where the proxy accepts the question that is asked without the body.
  const std::uint32_t status = _head.head().status;
  const bool mayBeInterim =
      _session->usesProxyDigest() && (status == 407 || (status < 300 && !isBodySent()));
  return !mayBeInterim || _bodyBegan || _session->result();
}

bool CurlExchange::isBodySent() const {
  return !_hop->body() || _uploaded >= _hop->body()->length();
}

bool CurlExchange::shouldUseProxyDigest() const {
  const bool refused =
      _head.isComplete() ? _head.head().status == 407 : _session->result().has_value();
  return refused && !_session->policy().proxyUsername.empty() && !_session->usesProxyDigest() &&
         _session->proxyWantsDigest();
}

// A kept connection that the server had closed meanwhile. libcurl repeats the request itself unless
// it was sending a body.
bool CurlExchange::diedUnused() const {
  const CURLcode code = *_session->result();
  const bool died = code == CURLE_SEND_ERROR || code == CURLE_RECV_ERROR ||
                    code == CURLE_GOT_NOTHING || code == CURLE_HTTP2 || code == CURLE_HTTP2_STREAM;
  return died && _head.isUntouched() && !_uploadFailed && _session->reusedConnection();
}

template <typename Condition>
void CurlExchange::runUntil(Condition condition) {
  auto lastProgress = SteadyClock::now();
  std::uint64_t lastUploaded = 0;
  while (!_session->result() && !condition()) {
    if (_interrupt && _interrupt()) {
      giveBackSession();
      throw HttpCancelled();
    }
    const std::uint64_t before = _arrivals;
    const bool stirred = _session->turn(kSlice);
    const auto now = SteadyClock::now();
    // Before the response begins every sign of life counts (handshakes, room to send); after that
    // only bytes of it do, as they do where a stalled request could hide behind other traffic.
    if (_arrivals != before || (stirred && !_sendReturned && !_session->isMultiplexed())) {
      lastProgress = now;
      continue;
    }
    const std::uint64_t uploaded = _session->bytesUploaded();
    if (uploaded != lastUploaded) {
      lastUploaded = uploaded;
      lastProgress = now;
    } else if (now - lastProgress >= _limit && !_session->result()) {
      const std::string what = _sendReturned ? "reading the response's body" : _session->phase();
      giveBackSession();
      throw HttpFailure(KOVO_ERROR_TIMEOUT, "No progress for " +
                                                std::to_string(_limit.count() / 1000) +
                                                " s while " + what + " (" + _hop->host() + ")");
    }
  }
}

void CurlExchange::drain() {
  _discards = true;
  _discarded = 0;
  _session->resume();
  const auto deadline = SteadyClock::now() + kLongestDrain;
  while (!_session->result() && SteadyClock::now() < deadline && (!_interrupt || !_interrupt())) {
    _session->turn(Milliseconds(10));
  }
  _session->finish();
}

void CurlExchange::settle() {
  const CURLcode code = *_session->result();
  if (code == CURLE_OK) {
    giveBackSession();
    return;
  }
  _failure = failureText(code);
  _session.reset();
}

std::string CurlExchange::failureText(CURLcode code) const {
  std::string text;
  if (_uploadFailed) {
    text = "The request's body could not be read";
  } else if (!_head.problem().empty()) {
    text = _head.problem();
  } else if (code == CURLE_OK) {
    text = "The server sent no response";
  } else {
    text = _session->describe(code);
  }
  return text + " (" + _hop->host() + ")";
}

std::size_t CurlExchange::read(std::uint8_t* buffer, std::size_t count, std::size_t room) {
  if (count == 0) {
    return 0;
  }
  if (_aheadLength > 0) {
    if (_ahead == buffer) {
      const std::size_t length = std::min(count, _aheadLength);
      _ahead += length;
      _aheadLength -= length;
      return length;
    }
    setAside(std::exchange(_ahead, nullptr), std::exchange(_aheadLength, 0));
  }
  if (_overflowRead < _overflow.size()) {
    return handOutOverflow(buffer, count);
  }
  if (!_session) {
    if (!_failure.empty()) {
      fail(_failure);
    }
    return 0;
  }
  _target = buffer;
  _room = std::max(room, count);
  _filled = 0;
  _session->resume();
  runUntil([this] { return _filled > 0; });
  // TLS comes in records of 16 KiB; what is there already saves the caller a round.
  for (std::size_t before = 0; before < _filled && _filled < count && !_session->result();) {
    before = _filled;
    _session->turn(Milliseconds(0));
  }
  const std::size_t filled = std::exchange(_filled, 0);
  _target = nullptr;
  _room = 0;
  if (_session->result()) {
    settle();
  }
  if (filled == 0 && !_failure.empty()) {
    fail(_failure);
  }
  const std::size_t length = std::min(filled, count);
  _ahead = buffer + length;
  _aheadLength = filled - length;
  return length;
}

std::size_t CurlExchange::handOutOverflow(std::uint8_t* buffer, std::size_t count) {
  const std::size_t length = std::min(count, _overflow.size() - _overflowRead);
  std::memcpy(buffer, _overflow.data() + _overflowRead, length);
  _overflowRead += length;
  if (_overflowRead == _overflow.size()) {
    _overflow.clear();
    _overflowRead = 0;
  }
  return length;
}

// The caller did not go on behind what it read last; what is ahead there comes first all the same.
void CurlExchange::setAside(std::uint8_t* ahead, std::size_t length) {
  std::vector<std::uint8_t> all(ahead, ahead + length);
  all.insert(all.end(), _overflow.begin() + static_cast<std::ptrdiff_t>(_overflowRead),
             _overflow.end());
  _overflow.swap(all);
  _overflowRead = 0;
}

bool CurlExchange::onHeaderLine(std::string_view line) noexcept {
  ++_arrivals;
  try {
    return _bodyBegan || _sendReturned ? _head.addTrailer(line) : _head.add(line);
  } catch (...) {
    return false;
  }
}

HttpTransferHandler::BodyAnswer CurlExchange::onBody(const std::uint8_t* data,
                                                     std::size_t length) noexcept {
  _bodyBegan = true;
  if (_discards) {
    _discarded += length;
    return _discarded <= kMostDrained ? BodyAnswer::Taken : BodyAnswer::Failed;
  }
  const std::size_t fits = std::min(length, _room - _filled);
  // What does not fit is held here as long as that saves stopping the transfer: the beginning of
  // the body, and the rest of a piece.
  const std::size_t mostHeld = _sendReturned ? 1 : kMostHeldByHead;
  if (fits == 0 && _overflow.size() - _overflowRead >= mostHeld) {
    return BodyAnswer::NoRoom;
  }
  ++_arrivals;
  if (fits > 0) {
    std::memcpy(_target + _filled, data, fits);
    _filled += fits;
  }
  try {
    _overflow.insert(_overflow.end(), data + fits, data + length);
    return BodyAnswer::Taken;
  } catch (...) {
    return BodyAnswer::Failed;
  }
}

bool CurlExchange::onUpload(std::uint8_t* buffer, std::size_t capacity,
                            std::size_t& length) noexcept {
  length = 0;
  HttpRequestBody* body = _hop->body();
  if (isBodySent()) {
    return true;
  }
  const std::uint64_t left = body->length() - _uploaded;
  capacity = static_cast<std::size_t>(std::min<std::uint64_t>(capacity, left));
  try {
    _uploadFailed = _sendReturned || !body->read(buffer, capacity, length) || length == 0;
  } catch (...) {
    _uploadFailed = true;
  }
  _uploaded += length;
  return !_uploadFailed;
}

bool CurlExchange::onRewind() noexcept {
  _uploaded = 0;
  try {
    return _hop->body() && _hop->body()->rewind();
  } catch (...) {
    return false;
  }
}

}  // namespace kovo
