#pragma once

#include <cstdint>
#include <string>

namespace kovo {

struct UrlParts {
  std::string scheme;      // lower case
  std::string host;        // IPv6 literals keep their brackets
  std::uint32_t port = 0;  // the scheme's own when the URL names none
  std::string path;
  std::string query;  // begins with "?" when there is one
};

// Splits an absolute URL (RFC 3986). Throws std::invalid_argument for a malformed one; the text
// never holds the URL's user information.
UrlParts splitUrl(const std::string& url);

}  // namespace kovo
