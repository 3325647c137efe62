#include "platform/linux/curl_url.h"

#include <algorithm>
#include <new>

namespace kovo {

namespace {

std::string lowered(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(), [](char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
  });
  return text;
}

}  // namespace

CurlUrl::CurlUrl() : _url(curl_url()) {
  if (!_url) {
    throw std::bad_alloc();
  }
}

CurlUrl::~CurlUrl() {
  curl_url_cleanup(_url);
}

bool CurlUrl::set(const std::string& url) {
  // c_str() would cut the URL at a NUL and request something else.
  if (url.find('\0') != std::string::npos) {
    return false;
  }
  // Servers put unescaped blanks into Location; the scheme is judged by the caller.
  const unsigned int flags = CURLU_URLENCODE | CURLU_NON_SUPPORT_SCHEME;
  return curl_url_set(_url, CURLUPART_URL, url.c_str(), flags) == CURLUE_OK;
}

std::string CurlUrl::part(CURLUPart what, unsigned int flags) const {
  char* text = nullptr;
  if (curl_url_get(_url, what, &text, flags) != CURLUE_OK || !text) {
    return std::string();
  }
  std::string result(text);
  curl_free(text);
  return result;
}

std::string CurlUrl::scheme() const {
  return lowered(part(CURLUPART_SCHEME, 0));
}

std::string CurlUrl::host() const {
  return lowered(part(CURLUPART_HOST, 0));
}

std::string CurlUrl::origin() const {
  return scheme() + "://" + host() + ":" + part(CURLUPART_PORT, CURLU_DEFAULT_PORT);
}

std::string CurlUrl::text() const {
  std::string url = part(CURLUPART_URL, 0);
  const std::size_t fragment = url.find('#');
  if (fragment != std::string::npos) {
    url.resize(fragment);
  }
  return url;
}

}  // namespace kovo
