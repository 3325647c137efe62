#include "platform/linux/http_hop.h"

#include <strings.h>

#include <algorithm>
#include <string_view>

#include "platform/linux/curl_url.h"

namespace kovo {

namespace {

bool sameName(const std::string& one, const char* other) {
  return strcasecmp(one.c_str(), other) == 0;
}

bool isToken(const std::string& text) {
  constexpr std::string_view kOthers = "!#$%&'*+-.^_`|~";
  return !text.empty() && std::all_of(text.begin(), text.end(), [&](char c) {
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
           kOthers.find(c) != std::string_view::npos;
  });
}

bool isCredential(const std::string& name) {
  std::string lower(name);
  std::transform(lower.begin(), lower.end(), lower.begin(), [](char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
  });
  return lower == "cookie" || lower.find("auth") != std::string::npos ||
         lower.find("token") != std::string::npos || lower.find("api-key") != std::string::npos;
}

// Framing belongs to the client: a length or a coding that does not fit what is really sent would
// put the connection out of step with the server.
bool contradictsFraming(const Header& header, const HttpRequestBody* body) {
  if (sameName(header.first, "Transfer-Encoding")) {
    return true;
  }
  return sameName(header.first, "Content-Length") && (body || header.second != "0");
}

[[noreturn]] void refuse(const std::string& text) {
  throw HttpFailure(HttpFailure::kPlatformFailure, text);
}

}  // namespace

HttpHop::HttpHop(const HttpRequestMessage& message) : _verb(message.verb), _body(message.body) {
  CurlUrl url;
  if (!url.set(message.url)) {
    refuse("The URL is malformed");
  }
  _host = url.host();
  _origin = url.origin();
  _url = message.url;
  if (!isToken(_verb)) {
    refuse("The request's method is malformed (" + _host + ")");
  }
  _headers.reserve(message.headers.size());
  for (const Header& header : message.headers) {
    constexpr std::string_view kBreaks("\r\n\0", 3);
    if (!isToken(header.first) || header.second.find_first_of(kBreaks) != std::string::npos) {
      refuse("A request header is malformed (" + _host + ")");
    }
    if (!contradictsFraming(header, _body)) {
      _headers.push_back(header);
    }
  }
}

bool HttpHop::isRedirect(std::uint32_t status) {
  return status == 301 || status == 302 || status == 303 || status == 307 || status == 308;
}

void HttpHop::redirect(std::uint32_t status, const std::string& location) {
  CurlUrl target;
  if (!target.set(_url) || !target.set(location)) {
    refuse("The redirect's Location is malformed (" + _host + ")");
  }
  if (target.scheme() != "http" && target.scheme() != "https") {
    refuse("The redirect leads to neither http nor https (" + _host + ")");
  }
  // The text is read once more when it is requested: escapes in a host may then mean another one.
  CurlUrl requested;
  if (!requested.set(target.text()) || requested.origin() != target.origin()) {
    refuse("The redirect's Location is malformed (" + _host + ")");
  }
  const bool becomesGet = (status == 303 && _verb != "HEAD" && _verb != "GET") ||
                          ((status == 301 || status == 302) && _verb == "POST");
  if (becomesGet) {
    _verb = "GET";
    dropBody();
  } else {
    rewindBody();
  }
  const std::string origin = target.origin();
  if (origin != _origin) {
    dropCredentials();
  }
  _url = target.text();
  _host = target.host();
  _origin = origin;
}

void HttpHop::rewindBody() {
  if (_body && !_body->rewind()) {
    refuse("The request's body cannot be sent again (" + _host + ")");
  }
}

void HttpHop::dropBody() {
  _body = nullptr;
  std::erase_if(_headers, [](const Header& header) {
    return strncasecmp(header.first.c_str(), "Content-", 8) == 0;
  });
}

void HttpHop::dropCredentials() {
  std::erase_if(_headers, [](const Header& header) {
    return isCredential(header.first) || sameName(header.first, "Host");
  });
}

}  // namespace kovo
