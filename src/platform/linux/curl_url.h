#pragma once

#include <curl/curl.h>

#include <boost/noncopyable.hpp>
#include <string>

namespace kovo {

// A URL as libcurl understands it, so that what is judged here is what will be requested.
class CurlUrl : boost::noncopyable {
 public:
  CurlUrl();
  ~CurlUrl();

  // False when it is not a URL. A relative one is resolved against the URL held so far.
  bool set(const std::string& url);
  // Lower case, empty when there is none.
  std::string scheme() const;
  std::string host() const;
  // Scheme, host and port: what credentials and connections belong to.
  std::string origin() const;
  // The whole URL without its fragment.
  std::string text() const;

 private:
  std::string part(CURLUPart what, unsigned int flags) const;

  CURLU* const _url;
};

}  // namespace kovo
