#pragma once

#include <cstdint>
#include <string>

#include "platform/http_client.h"

namespace kovo {

// One request of an exchange: the caller's, or the one a redirect leads to.
class HttpHop {
 public:
  // Throws HttpFailure when the message cannot be sent safely (a line break in a header, a URL that
  // is none).
  explicit HttpHop(const HttpRequestMessage& message);

  // Turns the hop into the one that this answer leads to: method, body, URL, and headers without
  // the credentials when the origin changes. Throws HttpFailure when the redirect is refused or
  // the body cannot be sent again.
  void redirect(std::uint32_t status, const std::string& location);
  // Whether the answer is a redirect to follow, were there a Location.
  static bool isRedirect(std::uint32_t status);

  // The body from its first byte again; throws HttpFailure when it cannot.
  void rewindBody();

  const std::string& verb() const { return _verb; }
  const std::string& url() const { return _url; }
  const std::string& host() const { return _host; }
  const std::string& origin() const { return _origin; }
  const HeaderList& headers() const { return _headers; }
  HttpRequestBody* body() const { return _body; }

 private:
  void dropBody();
  void dropCredentials();

  std::string _verb;
  std::string _url;
  std::string _host;
  std::string _origin;
  HeaderList _headers;
  HttpRequestBody* _body;
};

}  // namespace kovo
