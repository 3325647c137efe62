#include "platform/linux/http_session.h"

#include <openssl/ssl.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <new>
#include <type_traits>

#include "platform/http_client.h"

namespace kovo {

namespace {

using Milliseconds = std::chrono::milliseconds;
using SteadyClock = std::chrono::steady_clock;

// One receive takes at most this much. More costs fewer system calls, but the bytes are copied out
// of this buffer at once and should still be in the processor's cache then.
constexpr long kReceiveBuffer = 128L * 1024;
constexpr long kUploadBuffer = 128L * 1024;
// What OpenSSL takes from the socket at once, several records of 16 KiB, in place of two receives
// for each record.
constexpr std::size_t kTlsReadAhead = 128UL * 1024;
// Connections a session keeps: the origin, where it redirects to, and a spare one.
constexpr long kConnectionsPerSession = 3;

template <typename Value>
void setOption(CURL* easy, CURLoption option, Value value) {
  static_assert(std::is_scalar_v<Value>);
  const CURLcode code = curl_easy_setopt(easy, option, value);
  if (code != CURLE_OK) {
    throw HttpFailure(HttpFailure::kPlatformFailure, curl_easy_strerror(code));
  }
}

int pollEvents(int what) {
  return ((what & CURL_POLL_IN) ? POLLIN : 0) | ((what & CURL_POLL_OUT) ? POLLOUT : 0);
}

// A refused or reset connection still may have bytes to read first, so errors count as readable.
int curlEvents(int what, int found) {
  const bool failed = (found & (POLLERR | POLLHUP | POLLNVAL)) != 0;
  int events = (found & POLLIN) || failed ? CURL_CSELECT_IN : 0;
  if ((what & CURL_POLL_OUT) && ((found & POLLOUT) || failed)) {
    // While a body is sent the answer may come early; seeing it first is what saves it when the
    // server closes the connection.
    events |= CURL_CSELECT_OUT | ((what & CURL_POLL_IN) ? CURL_CSELECT_IN : 0);
  }
  return events;
}

// libcurl's own sockets would be inherited by every program the host starts.
curl_socket_t openSocket(void*, curlsocktype, curl_sockaddr* address) noexcept {
  return ::socket(address->family, address->socktype | SOCK_CLOEXEC, address->protocol);
}

}  // namespace

HttpSession::HttpSession(std::shared_ptr<CurlShare> share, const HttpSessionPolicy& policy)
    : _share(std::move(share)), _policy(policy) {
  _multi = curl_multi_init();
  _easy = _multi ? curl_easy_init() : nullptr;
  if (!_easy) {
    curl_multi_cleanup(_multi);
    throw std::bad_alloc();
  }
  try {
    setPersistentOptions();
  } catch (...) {
    curl_easy_cleanup(_easy);
    curl_multi_cleanup(_multi);
    throw;
  }
}

HttpSession::~HttpSession() {
  finish();
  curl_easy_cleanup(_easy);
  curl_multi_cleanup(_multi);
}

void HttpSession::setPersistentOptions() {
  curl_multi_setopt(_multi, CURLMOPT_SOCKETFUNCTION, &HttpSession::onSocket);
  curl_multi_setopt(_multi, CURLMOPT_SOCKETDATA, this);
  curl_multi_setopt(_multi, CURLMOPT_TIMERFUNCTION, &HttpSession::onTimer);
  curl_multi_setopt(_multi, CURLMOPT_TIMERDATA, this);
  curl_multi_setopt(_multi, CURLMOPT_MAXCONNECTS, kConnectionsPerSession);

  setOption(_easy, CURLOPT_NOSIGNAL, 1L);
  setOption(_easy, CURLOPT_NOPROGRESS, 1L);
  setOption(_easy, CURLOPT_QUICK_EXIT, 1L);  // never joins a resolver that hangs
  setOption(_easy, CURLOPT_SHARE, _share->handle());
  setOption(_easy, CURLOPT_OPENSOCKETFUNCTION, &openSocket);
  setOption(_easy, CURLOPT_ERRORBUFFER, &_errorText[0]);
  setOption(_easy, CURLOPT_WRITEFUNCTION, &HttpSession::onWrite);
  setOption(_easy, CURLOPT_WRITEDATA, this);
  setOption(_easy, CURLOPT_HEADERFUNCTION, &HttpSession::onHeader);
  setOption(_easy, CURLOPT_HEADERDATA, this);
  setOption(_easy, CURLOPT_READFUNCTION, &HttpSession::onRead);
  setOption(_easy, CURLOPT_READDATA, this);
  setOption(_easy, CURLOPT_SEEKFUNCTION, &HttpSession::onSeek);
  setOption(_easy, CURLOPT_SEEKDATA, this);
  setOption(_easy, CURLOPT_BUFFERSIZE, kReceiveBuffer);
  setOption(_easy, CURLOPT_UPLOAD_BUFFERSIZE, kUploadBuffer);
  setOption(_easy, CURLOPT_PROTOCOLS_STR, "http,https");
  setOption(_easy, CURLOPT_FOLLOWLOCATION, 0L);
  setOption(_easy, CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_2TLS));
  setOption(_easy, CURLOPT_HTTP09_ALLOWED, 0L);
  setOption(_easy, CURLOPT_HTTP_CONTENT_DECODING, 0L);
  setOption(_easy, CURLOPT_SUPPRESS_CONNECT_HEADERS, 1L);
  setOption(_easy, CURLOPT_USERAGENT, "KOVO/1.3.0.000");

  setOption(_easy, CURLOPT_SSL_VERIFYPEER, _policy.validatesCertificates ? 1L : 0L);
  setOption(_easy, CURLOPT_SSL_VERIFYHOST, _policy.validatesCertificates ? 2L : 0L);
  // A session resumed skips the check of the certificate.
  setOption(_easy, CURLOPT_SSL_SESSIONID_CACHE, _policy.validatesCertificates ? 1L : 0L);
  if (curl_easy_setopt(_easy, CURLOPT_SSL_CTX_FUNCTION, &HttpSession::onSslContext) == CURLE_OK) {
    setOption(_easy, CURLOPT_SSL_CTX_DATA, this);
    setOption(_easy, CURLOPT_CAINFO, static_cast<const char*>(nullptr));
    setOption(_easy, CURLOPT_CAPATH, static_cast<const char*>(nullptr));
    setOption(_easy, CURLOPT_PROXY_CAINFO, static_cast<const char*>(nullptr));
    setOption(_easy, CURLOPT_PROXY_CAPATH, static_cast<const char*>(nullptr));
  }
  if (!_policy.proxyUsername.empty()) {
    setOption(_easy, CURLOPT_PROXYUSERNAME, _policy.proxyUsername.c_str());
    setOption(_easy, CURLOPT_PROXYPASSWORD, _policy.proxyPassword.c_str());
  }
}

void HttpSession::setVerb(const HttpSessionRequest& request) {
  if (request.bodyLength) {
    setOption(_easy, CURLOPT_UPLOAD, 1L);
    setOption(_easy, CURLOPT_INFILESIZE_LARGE, static_cast<curl_off_t>(*request.bodyLength));
    setOption(_easy, CURLOPT_CUSTOMREQUEST, request.verb.c_str());
    return;
  }
  // HTTPGET also takes back what an upload or a HEAD before it set.
  setOption(_easy, CURLOPT_HTTPGET, 1L);
  if (request.verb == "HEAD") {
    setOption(_easy, CURLOPT_NOBODY, 1L);
  }
  const bool isPlain = request.verb == "GET" || request.verb == "HEAD";
  setOption(_easy, CURLOPT_CUSTOMREQUEST, isPlain ? nullptr : request.verb.c_str());
}

void HttpSession::begin(const HttpSessionRequest& request, HttpTransferHandler& handler) {
  finish();
  _errorText[0] = '\0';
  setOption(_easy, CURLOPT_URL, request.url.c_str());
  setOption(_easy, CURLOPT_HTTPHEADER, request.headers);
  setVerb(request);
  setOption(_easy, CURLOPT_FRESH_CONNECT, request.freshConnection ? 1L : 0L);
  // The exchange watches the time by itself; libcurl gives the first of several addresses half of
  // this before it tries the next. More than 32 bits would wrap.
  setOption(_easy, CURLOPT_CONNECTTIMEOUT_MS,
            static_cast<long>(std::min<Milliseconds::rep>(request.inactivityLimit.count() / 10 * 19,
                                                          1'000'000'000)));
  _isTls = request.url.size() > 4 && (request.url[4] == 's' || request.url[4] == 'S');
  _handler = &handler;
  if (curl_multi_add_handle(_multi, _easy) != CURLM_OK) {
    _handler = nullptr;
    throw HttpFailure(HttpFailure::kPlatformFailure, "The request could not be started");
  }
}

void HttpSession::finish() noexcept {
  if (_handler) {
    // Known only while the transfer is in the multi handle.
    if (curl_easy_getinfo(_easy, CURLINFO_ACTIVESOCKET, &_idleSocket) != CURLE_OK) {
      _idleSocket = CURL_SOCKET_BAD;
    }
    curl_multi_remove_handle(_multi, _easy);
    _handler = nullptr;
  }
  _result.reset();
  _bodyArrived = false;
  _paused = false;
}

void HttpSession::resume() {
  if (_paused && !_result) {
    _paused = false;
    curl_easy_pause(_easy, CURLPAUSE_CONT);
  }
}

bool HttpSession::turn(Milliseconds longest) {
  const auto now = SteadyClock::now();
  if (_timer && *_timer <= now) {
    _timer.reset();
    act(CURL_SOCKET_TIMEOUT, 0);
    return _newSocket;
  }
  // Where bytes just came from there are more as a rule: asking the socket straight away saves a
  // poll for each receive. And bytes that OpenSSL holds already would never wake a poll.
  if (_watches.size() == 1 && (_watches[0].what & CURL_POLL_IN) &&
      (_bodyArrived || tlsHoldsBytes())) {
    act(_watches[0].socket, CURL_CSELECT_IN);
    return _bodyArrived;
  }
  if (_timer) {
    longest = std::min(longest, std::chrono::ceil<Milliseconds>(*_timer - now));
  }
  return waitAndAct(longest);
}

bool HttpSession::waitAndAct(Milliseconds longest) {
  std::array<pollfd, 16> polled;
  std::array<int, 16> wanted{};
  const std::size_t count = std::min(_watches.size(), polled.size());
  for (std::size_t i = 0; i < count; ++i) {
    const Watch& watch = _watches[i];
    polled[i] = {watch.socket, static_cast<short>(pollEvents(watch.what)), 0};
    wanted[i] = watch.what;
  }
  if (poll(polled.data(), count, static_cast<int>(longest.count())) <= 0) {
    return false;
  }
  for (std::size_t i = 0; i < count && !_result; ++i) {
    if (polled[i].revents != 0) {
      act(polled[i].fd, curlEvents(wanted[i], polled[i].revents));
    }
  }
  return true;
}

void HttpSession::act(curl_socket_t socket, int events) {
  _bodyArrived = false;
  _newSocket = false;
  int running = 0;
  curl_multi_socket_action(_multi, socket, events, &running);
  if (running == 0) {
    collectResult();
  }
}

void HttpSession::collectResult() {
  int left = 0;
  while (const CURLMsg* message = curl_multi_info_read(_multi, &left)) {
    if (message->msg == CURLMSG_DONE) {
      _result = message->data.result;
    }
  }
}

namespace {

// The TLS state of a running transfer's connection; null without TLS.
SSL* tlsOf(CURL* easy) {
  const curl_tlssessioninfo* info = nullptr;
  if (curl_easy_getinfo(easy, CURLINFO_TLS_SSL_PTR, &info) != CURLE_OK || !info ||
      info->backend != CURLSSLBACKEND_OPENSSL) {
    return nullptr;
  }
  return static_cast<SSL*>(info->internals);
}

}  // namespace

bool HttpSession::tlsHoldsBytes() const {
  if (!_isTls) {
    return false;
  }
  // After a read that found no whole record, only the socket can help.
  const SSL* tls = tlsOf(_easy);
  return tls && SSL_has_pending(tls) && !SSL_want_read(tls);
}

bool HttpSession::isMultiplexed() const {
  const SSL* tls = _isTls ? tlsOf(_easy) : nullptr;
  if (!tls) {
    return false;
  }
  const unsigned char* protocol = nullptr;
  unsigned int length = 0;
  SSL_get0_alpn_selected(tls, &protocol, &length);
  return length == 2 && std::memcmp(protocol, "h2", 2) == 0;
}

std::string HttpSession::describe(CURLcode code) const {
  const std::string detail(_errorText);
  // libcurl quotes a proxy URL it cannot read, password included.
  const bool mayTellSecrets = detail.find('@') != std::string::npos ||
                              detail.find("://") != std::string::npos ||
                              detail.find('?') != std::string::npos;
  const std::string general(curl_easy_strerror(code));
  if (detail.empty() || mayTellSecrets) {
    return general;
  }
  return detail.find(general) == std::string::npos ? general + ": " + detail : detail;
}

bool HttpSession::holdsUnaskedBytes() const {
  // TLS has messages of its own that nobody asks for.
  char byte = 0;
  return !_isTls && _idleSocket != CURL_SOCKET_BAD &&
         ::recv(_idleSocket, &byte, 1, MSG_PEEK | MSG_DONTWAIT) > 0;
}

long HttpSession::timeOf(CURLINFO info) const {
  curl_off_t microseconds = 0;
  curl_easy_getinfo(_easy, info, &microseconds);
  return static_cast<long>(microseconds);
}

const char* HttpSession::phase() const {
  if (timeOf(CURLINFO_PRETRANSFER_TIME_T) > 0) {
    const bool sends = std::any_of(_watches.begin(), _watches.end(), [](const Watch& watch) {
      return (watch.what & CURL_POLL_OUT) != 0;
    });
    return sends ? "sending the request" : "waiting for the response's headers";
  }
  return timeOf(CURLINFO_NAMELOOKUP_TIME_T) > 0 ? "connecting" : "resolving the host";
}

std::uint64_t HttpSession::bytesUploaded() const {
  return static_cast<std::uint64_t>(timeOf(CURLINFO_SIZE_UPLOAD_T));
}

bool HttpSession::reusedConnection() const {
  long opened = 0;
  curl_easy_getinfo(_easy, CURLINFO_NUM_CONNECTS, &opened);
  return opened == 0;
}

bool HttpSession::proxyWantsDigest() const {
  long offered = 0;
  curl_easy_getinfo(_easy, CURLINFO_PROXYAUTH_AVAIL, &offered);
  const auto methods = static_cast<unsigned long>(offered);
  return (methods & CURLAUTH_DIGEST) != 0 && (methods & CURLAUTH_BASIC) == 0;
}

void HttpSession::useProxyDigest() {
  setOption(_easy, CURLOPT_PROXYAUTH, static_cast<long>(CURLAUTH_DIGEST));
  _usesProxyDigest = true;
}

bool HttpSession::knowsOrigin(const std::string& origin) const {
  return std::find(_origins.begin(), _origins.end(), origin) != _origins.end();
}

void HttpSession::noteOrigin(const std::string& origin) {
  if (!_origins.empty() && _origins.back() == origin) {
    return;
  }
  std::erase(_origins, origin);
  _origins.push_back(origin);
  if (_origins.size() > static_cast<std::size_t>(kConnectionsPerSession)) {
    _origins.erase(_origins.begin());
  }
}

int HttpSession::onSocket(CURL*, curl_socket_t socket, int what, void* self, void*) {
  auto& watches = static_cast<HttpSession*>(self)->_watches;
  const auto found = std::find_if(watches.begin(), watches.end(),
                                  [socket](const Watch& watch) { return watch.socket == socket; });
  if (what == CURL_POLL_REMOVE) {
    if (found != watches.end()) {
      watches.erase(found);
    }
  } else if (found != watches.end()) {
    found->what = what;
  } else {
    watches.push_back({socket, what});
    static_cast<HttpSession*>(self)->_newSocket = true;
  }
  return 0;
}

int HttpSession::onTimer(CURLM*, long milliseconds, void* self) {
  auto& timer = static_cast<HttpSession*>(self)->_timer;
  if (milliseconds < 0) {
    timer.reset();
  } else {
    timer = SteadyClock::now() + Milliseconds(milliseconds);
  }
  return 0;
}

std::size_t HttpSession::onWrite(char* data, std::size_t size, std::size_t count, void* self) {
  auto* session = static_cast<HttpSession*>(self);
  const std::size_t length = size * count;
  const auto* bytes = reinterpret_cast<const std::uint8_t*>(data);
  switch (session->_handler->onBody(bytes, length)) {
    case HttpTransferHandler::BodyAnswer::Taken:
      session->_bodyArrived = true;
      return length;
    case HttpTransferHandler::BodyAnswer::NoRoom:
      session->_paused = true;
      return CURL_WRITEFUNC_PAUSE;
    default:
      return CURL_WRITEFUNC_ERROR;
  }
}

std::size_t HttpSession::onHeader(char* data, std::size_t size, std::size_t count, void* self) {
  const std::size_t length = size * count;
  auto* handler = static_cast<HttpSession*>(self)->_handler;
  return handler->onHeaderLine(std::string_view(data, length)) ? length : CURL_WRITEFUNC_ERROR;
}

std::size_t HttpSession::onRead(char* data, std::size_t size, std::size_t count, void* self) {
  auto* handler = static_cast<HttpSession*>(self)->_handler;
  std::size_t length = 0;
  auto* buffer = reinterpret_cast<std::uint8_t*>(data);
  return handler->onUpload(buffer, size * count, length) ? length : CURL_READFUNC_ABORT;
}

int HttpSession::onSeek(void* self, curl_off_t offset, int origin) {
  auto* handler = static_cast<HttpSession*>(self)->_handler;
  const bool toStart = offset == 0 && origin == SEEK_SET;
  return toStart && handler->onRewind() ? CURL_SEEKFUNC_OK : CURL_SEEKFUNC_FAIL;
}

CURLcode HttpSession::onSslContext(CURL*, void* context, void* self) {
  auto* tls = static_cast<SSL_CTX*>(context);
  auto* session = static_cast<HttpSession*>(self);
  SSL_CTX_set_read_ahead(tls, 1);
  SSL_CTX_set_default_read_buffer_len(tls, kTlsReadAhead);
  if (session->_policy.validatesCertificates) {
    X509_STORE* trusted = session->_share->trustStore();
    if (!trusted) {
      return CURLE_SSL_CACERT_BADFILE;
    }
    SSL_CTX_set1_cert_store(tls, trusted);
  }
  return CURLE_OK;
}

}  // namespace kovo
