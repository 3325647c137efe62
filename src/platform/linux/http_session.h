#pragma once

#include <curl/curl.h>

#include <boost/noncopyable.hpp>
#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/linux/curl_share.h"
#include "platform/linux/http_transfer_handler.h"

namespace kovo {

// Connections never serve requests of another policy: a connection made without checking the
// certificate, or through a proxy as somebody, stays with those who asked for that.
struct HttpSessionPolicy {
  bool validatesCertificates = true;
  std::string proxyUsername;
  std::string proxyPassword;

  bool operator==(const HttpSessionPolicy&) const = default;
};

// One request as a session is to send it.
struct HttpSessionRequest {
  const std::string& verb;
  const std::string& url;
  const curl_slist* headers;
  std::optional<std::uint64_t> bodyLength;  // none: no body
  std::chrono::milliseconds inactivityLimit;
  bool freshConnection;
};

// A libcurl transfer that is kept, with its connections, from exchange to exchange; used by one
// exchange at a time, which drives it on its own thread.
class HttpSession : boost::noncopyable {
 public:
  HttpSession(std::shared_ptr<CurlShare> share, const HttpSessionPolicy& policy);
  ~HttpSession();

  // Starts a request; handler must outlive finish. Throws HttpFailure when libcurl refuses it.
  void begin(const HttpSessionRequest& request, HttpTransferHandler& handler);
  // Lets libcurl act once, waiting at most so long for a reason to. True when something happened on
  // the wire or another address is being tried.
  bool turn(std::chrono::milliseconds longest);
  // Offers the body again after the handler had no room for it.
  void resume();
  // How the request ended, once it has.
  std::optional<CURLcode> result() const { return _result; }
  // Ends the request; a connection in the middle of a response is closed.
  void finish() noexcept;

  // libcurl's own words for a failure, without anything that could be secret.
  std::string describe(CURLcode code) const;
  // What a request that makes no progress is waiting for.
  const char* phase() const;
  // Whether other traffic than this request's may arrive on the connection (HTTP/2 pings).
  bool isMultiplexed() const;
  std::uint64_t bytesUploaded() const;
  bool reusedConnection() const;
  // The proxy asked for Digest and not for Basic.
  bool proxyWantsDigest() const;
  void useProxyDigest();
  bool usesProxyDigest() const { return _usesProxyDigest; }

  const HttpSessionPolicy& policy() const { return _policy; }

  // For the pool: whether something came behind the last answer. It would be taken for the
  // beginning of the next one.
  bool holdsUnaskedBytes() const;
  // For the pool: the origins that the session may hold connections to, the latest last.
  bool knowsOrigin(const std::string& origin) const;
  void noteOrigin(const std::string& origin);
  std::chrono::steady_clock::time_point idleSince;

 private:
  struct Watch {
    curl_socket_t socket;
    int what;  // CURL_POLL_IN, ...
  };

  void setPersistentOptions();
  void setVerb(const HttpSessionRequest& request);
  void act(curl_socket_t socket, int events);
  bool waitAndAct(std::chrono::milliseconds longest);
  bool tlsHoldsBytes() const;
  void collectResult();
  long timeOf(CURLINFO info) const;

  static int onSocket(CURL* easy, curl_socket_t socket, int what, void* self, void* socketData);
  static int onTimer(CURLM* multi, long milliseconds, void* self);
  static std::size_t onWrite(char* data, std::size_t size, std::size_t count, void* self);
  static std::size_t onHeader(char* data, std::size_t size, std::size_t count, void* self);
  static std::size_t onRead(char* data, std::size_t size, std::size_t count, void* self);
  static int onSeek(void* self, curl_off_t offset, int origin);
  static CURLcode onSslContext(CURL* easy, void* context, void* self);

  const std::shared_ptr<CurlShare> _share;
  const HttpSessionPolicy _policy;
  CURLM* _multi = nullptr;
  CURL* _easy = nullptr;
  char _errorText[CURL_ERROR_SIZE] = {};

  HttpTransferHandler* _handler = nullptr;  // null while no request runs
  std::optional<CURLcode> _result;
  bool _bodyArrived = false;  // during the last action
  bool _newSocket = false;    // likewise
  bool _paused = false;
  std::vector<Watch> _watches;
  std::optional<std::chrono::steady_clock::time_point> _timer;
  bool _isTls = false;
  curl_socket_t _idleSocket = CURL_SOCKET_BAD;  // of the last request's connection, if it is kept
  bool _usesProxyDigest = false;
  std::vector<std::string> _origins;
};

}  // namespace kovo
