// URLs: from the client, from redirects and from services' answers.
#include "platform/url.h"

#include <optional>
#include <stdexcept>

#include "fuzz/fuzz_target.h"
#include "http/kovo_http_utils.h"
#include "http/query_url.h"
#include "upload/s3_endpoint.h"

namespace kovo::test {
namespace {

std::optional<UrlParts> split(const std::string& url) {
  try {
    return splitUrl(url);
  } catch (const std::invalid_argument& fault) {
    require(!contains(fault.what(), kSecret), "a fault does not repeat the URL");
    return std::nullopt;
  }
}

std::string decoded(const std::string& text) {
  std::string result;
  for (std::size_t at = 0; at < text.size(); ++at) {
    if (text[at] == '%') {
      result += static_cast<char>(std::stoi(text.substr(at + 1, 2), nullptr, 16));
      at += 2;
    } else {
      result += text[at];
    }
  }
  return result;
}

void checkParts(const UrlParts& parts, const std::string& url) {
  require(!parts.scheme.empty() && !parts.host.empty(), "an absolute URL has scheme and host");
  require(parts.path[0] == '/', "a path begins with a slash");
  require(parts.path.find_first_of("?#") == std::string::npos, "a path ends before the query");
  require(parts.query.empty() || (parts.query[0] == '?' && parts.query.size() > 1),
          "a query begins with its mark");
  require(!contains(parts.query, "#"), "a query ends before the fragment");
  require(parts.port <= 65535, "a port has 16 bits");
  require(parts.host.find_first_of("/?#@\\ \r\n") == std::string::npos, "a host is one name");
  require(contains(url, parts.query), "the query is spelt as it was");

  const std::string port = parts.port == 0 ? "" : ":" + std::to_string(parts.port);
  const auto again = split(parts.scheme + "://" + parts.host + port + parts.path + parts.query);
  require(again && again->scheme == parts.scheme && again->host == parts.host &&
              again->port == parts.port && again->path == parts.path && again->query == parts.query,
          "a URL put together from its parts has the same parts");
}

void checkParameters(const std::string& url, const UrlParts& parts, const std::string& value) {
  const std::string encoded = encodeQueryValue(value);
  require(decoded(encoded) == value, "a value survives its encoding");
  require(encoded.find_first_of("&#+ ?\"<>") == std::string::npos, "a value ends no parameter");
  const auto extended = split(appendQuery(url, "name=" + encoded));
  require(extended && extended->scheme == parts.scheme && extended->host == parts.host &&
              extended->port == parts.port && extended->path == parts.path,
          "a parameter changes the query alone");
  require(extended->query.find(parts.query) == 0, "earlier parameters stay");
  require(
      extended->query.size() > encoded.size() + 5 &&
          extended->query.substr(extended->query.size() - encoded.size() - 5) == "name=" + encoded,
      "the parameter comes last");
}

}  // namespace

// The URL and a parameter's value.
KOVO_FUZZ_TARGET(url) {
  const std::string url = input.line();
  const std::string value = input.line();
  const auto parts = split(url);
  if (parts) {
    checkParts(*parts, url);
    if (url.size() + value.size() < 2000) {
      checkParameters(url, *parts, value);
    }
    require(canonicalS3Resource(url)[0] == '/', "a resource is a path");
  }
  const std::string redacted = KovoHttpUtils::redactUrl(url);
  require(redacted.find_first_of("?#") == std::string::npos, "no query in a log line");
  require(KovoHttpUtils::redactUrl(redacted) == redacted, "nothing is left to redact");

  // The secret where each kind of URL keeps it, as far as the whole is a URL.
  const std::size_t authority = url.find("://");
  if (authority == std::string::npos || contains(url, kSecret)) {
    return;
  }
  const std::size_t path = std::min(url.find_first_of("/?#", authority + 3), url.size());
  for (const std::string& planted :
       {url.substr(0, authority + 3) + "user:" + kSecret + "@" + url.substr(authority + 3),
        url.substr(0, authority + 3) + kSecret + "@" + url.substr(authority + 3),
        url.substr(0, path) + "/path?sig=" + kSecret, url.substr(0, path) + "#" + kSecret}) {
    if (const auto plantedParts = split(planted)) {
      require(!contains(plantedParts->host + plantedParts->path, kSecret),
              "user information is not part of host or path");
      require(!contains(KovoHttpUtils::redactUrl(planted), kSecret),
              "neither user information nor query in a log line");
    }
  }
}

}  // namespace kovo::test
