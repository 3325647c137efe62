#include "platform/url.h"

#include <curl/curl.h>

#include <algorithm>
#include <memory>
#include <stdexcept>

namespace kovo {
namespace {

using UrlHandle = std::unique_ptr<CURLU, void (*)(CURLU*)>;

// What the texts name is the kind of fault only: the URL may hold a password.
[[noreturn]] void reject(const char* fault) {
  throw std::invalid_argument(std::string("Malformed URL: ") + fault);
}

void check(CURLUcode code) {
  if (code != CURLUE_OK) {
    reject(::curl_url_strerror(code));
  }
}

std::string part(CURLU* url, CURLUPart which, unsigned int flags = 0) {
  char* text = nullptr;
  check(::curl_url_get(url, which, &text, flags));
  const std::unique_ptr<char, void (*)(void*)> owner(text, ::curl_free);
  return text;
}

// Whether a host whose escapes are decoded names the same host when it is read again: "3" would be
// the address 0.0.0.3.
bool isStable(const std::string& host) {
  const UrlHandle again(::curl_url(), ::curl_url_cleanup);
  return again != nullptr &&
         ::curl_url_set(again.get(), CURLUPART_URL, ("http://" + host).c_str(), 0) == CURLUE_OK &&
         part(again.get(), CURLUPART_HOST) == host;
}

bool isLetter(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

bool isSchemeCharacter(char c) {
  return isLetter(c) || (c >= '0' && c <= '9') || c == '+' || c == '-' || c == '.';
}

}  // namespace

UrlParts splitUrl(const std::string& url) {
  if (url.find('\0') != std::string::npos) {
    reject("a NUL byte");
  }
  // The library parses what browsers accept ("http:/host"); an absolute URL has "//" and a host.
  const std::size_t schemeEnd = url.find("://");
  if (schemeEnd == std::string::npos || schemeEnd == 0 || !isLetter(url[0]) ||
      !std::all_of(url.begin(), url.begin() + static_cast<std::ptrdiff_t>(schemeEnd),
                   isSchemeCharacter)) {
    reject("not an absolute URL");
  }
  const std::size_t authority = schemeEnd + 3;
  const std::size_t authorityEnd = std::min(url.find_first_of("/?#", authority), url.size());
  if (authorityEnd == authority) {
    reject("no host");
  }
  // Some parsers end the host there and others take what stands before it for a user name.
  if (url.find('\\', authority) < authorityEnd) {
    reject("a backslash before the path");
  }

  const UrlHandle handle(::curl_url(), ::curl_url_cleanup);
  if (handle == nullptr) {
    throw std::bad_alloc();
  }
  check(::curl_url_set(handle.get(), CURLUPART_URL, url.c_str(),
                       CURLU_NON_SUPPORT_SCHEME | CURLU_PATH_AS_IS));

  UrlParts parts;
  parts.scheme = url.substr(0, schemeEnd);
  std::transform(parts.scheme.begin(), parts.scheme.end(), parts.scheme.begin(),
                 [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c; });
  parts.host = part(handle.get(), CURLUPART_HOST);
  if (parts.host.empty()) {
    reject("no host");
  }
  // Escapes in it are decoded by now. What they hid would end a header, or be decoded once more.
  if (std::any_of(parts.host.begin(), parts.host.end(),
                  [](unsigned char c) { return c <= ' ' || c == 0x7F || c == '%'; }) ||
      (url.find('%', authority) < authorityEnd && !isStable(parts.host))) {
    reject("the host's name");
  }
  char* port = nullptr;
  const CURLUcode portCode =
      ::curl_url_get(handle.get(), CURLUPART_PORT, &port, CURLU_DEFAULT_PORT);
  if (portCode == CURLUE_OK) {
    const std::unique_ptr<char, void (*)(void*)> owner(port, ::curl_free);
    parts.port = static_cast<std::uint32_t>(std::stoul(port));
    if (parts.port == 0) {
      reject("port 0");
    }
  } else if (portCode != CURLUE_NO_PORT) {
    check(portCode);
  }

  // Path and query are taken from the text itself, so that no escape changes its spelling:
  // signatures are made over them.
  const std::size_t fragment = std::min(url.find('#', authorityEnd), url.size());
  const std::size_t query = std::min(url.find('?', authorityEnd), fragment);
  parts.path = url.substr(authorityEnd, query - authorityEnd);
  if (parts.path.empty()) {
    parts.path.push_back('/');
  }
  if (fragment - query > 1) {
    parts.query = url.substr(query, fragment - query);
  }
  return parts;
}

}  // namespace kovo
