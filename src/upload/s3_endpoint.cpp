#include "upload/s3_endpoint.h"

#include <algorithm>
#include <cctype>
#include <stdexcept>

#include "core/lock.h"
#include "platform/url.h"

namespace kovo {
namespace {

struct EndpointStore {
  RecursiveLock lock;
  std::string domain KOVO_GUARDED_BY(lock);  // lower case; empty: the public domain
};

EndpointStore& endpointStore() {
  static EndpointStore store;
  return store;
}

std::string lowerCase(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char character) { return std::tolower(character); });
  return text;
}

bool isLabelCharacter(char character) {
  return std::isalnum(static_cast<unsigned char>(character)) != 0 || character == '-' ||
         character == '_';
}

bool isIpv6Literal(const std::string& text) {
  return text.size() > 4 && text.front() == '[' && text.back() == ']' &&
         text.find(':') != std::string::npos &&
         std::all_of(text.begin() + 1, text.end() - 1, [](unsigned char character) {
           return std::isxdigit(character) != 0 || character == ':' || character == '.';
         });
}

bool isHostName(const std::string& text) {
  if (isIpv6Literal(text)) {
    return true;
  }
  if (text.size() > 253) {
    return false;
  }
  std::size_t start = 0;
  for (;;) {
    const std::size_t dot = std::min(text.find('.', start), text.size());
    const std::size_t length = dot - start;
    if (length == 0 || length > 63 || text[start] == '-' || text[dot - 1] == '-' ||
        !std::all_of(text.data() + start, text.data() + dot, isLabelCharacter)) {
      return false;
    }
    if (dot == text.size()) {
      return true;
    }
    start = dot + 1;
  }
}

bool endsWith(const std::string& text, const std::string& ending) {
  return text.size() >= ending.size() &&
         text.compare(text.size() - ending.size(), ending.size(), ending) == 0;
}

// Takes the last label off; false when there is none.
bool popLabel(std::string& host, std::string& label) {
  if (host.empty()) {
    return false;
  }
  const std::size_t dot = host.rfind('.');
  label = dot == std::string::npos ? host : host.substr(dot + 1);
  host = dot == std::string::npos ? std::string() : host.substr(0, dot);
  return true;
}

bool isEndpointLabel(const std::string& label) {
  return label == "s3" || label.compare(0, 3, "s3-") == 0;
}

// Whether host belongs to the public S3 domain. The forms of its endpoints: "s3", "s3-region",
// "s3-accelerate", "s3.region", "s3.dualstack.region", "s3-accelerate.dualstack", each before the
// domain; a bucket may stand before any of them, and may hold dots itself.
bool splitPublicHost(const std::string& host, std::string& bucket) {
  std::string rest;
  for (const char* domain : {".amazonaws.com", ".amazonaws.com.cn"}) {
    if (endsWith(host, domain)) {
      rest = host.substr(0, host.size() - std::string(domain).size());
    }
  }
  std::string label;
  if (!popLabel(rest, label)) {
    return false;
  }
  // Without one, what has been taken off is the region, which may follow "dualstack".
  if (!isEndpointLabel(label)) {
    if (!popLabel(rest, label) || (label == "dualstack" && !popLabel(rest, label)) ||
        !isEndpointLabel(label)) {
      return false;
    }
  }
  bucket = rest;
  return true;
}

// bucket stays empty for path style.
bool splitHost(const std::string& host, std::string& bucket) {
  std::string domain;
  {
    EndpointStore& store = endpointStore();
    ScopedLock guard(store.lock);
    domain = store.domain;
  }
  if (domain.empty()) {
    return splitPublicHost(host, bucket);
  }
  if (host == domain) {
    return true;
  }
  if (!endsWith(host, "." + domain)) {
    return false;
  }
  bucket = host.substr(0, host.size() - domain.size() - 1);
  return !bucket.empty();
}

}  // namespace

kovo_error setS3Endpoint(const char* domain) {
  const std::string text = domain == nullptr ? std::string() : lowerCase(domain);
  if (!text.empty() && !isHostName(text)) {
    return KOVO_ERROR_INVALID_PARAMETERS;
  }
  EndpointStore& store = endpointStore();
  ScopedLock guard(store.lock);
  store.domain = text;
  return KOVO_ERROR_NONE;
}

std::string canonicalS3Resource(const std::string& url) {
  std::string resource = "/";
  UrlParts parts;
  try {
    parts = splitUrl(url);
  } catch (const std::invalid_argument&) {
    return resource;
  }
  std::string bucket;
  if (!splitHost(lowerCase(parts.host), bucket)) {
    return resource;
  }
  if (!bucket.empty()) {
    resource += bucket + "/";
  }
  const bool hasSlash = !parts.path.empty() && parts.path.front() == '/';
  return resource + parts.path.substr(hasSlash ? 1 : 0) + parts.query;
}

}  // namespace kovo
