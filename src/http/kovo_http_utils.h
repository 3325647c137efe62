#pragma once

#include <kovo/kovo.h>

#include <cstdint>
#include <string>

namespace kovo {

// Header names and words, process-wide.
namespace http {
inline constexpr char kCacheControl[] = "Cache-Control";
inline constexpr char kLastModified[] = "Last-Modified";
inline constexpr char kContentRange[] = "Content-Range";
inline constexpr char kRange[] = "Range";
inline constexpr char kContentLength[] = "Content-Length";
inline constexpr char kContentType[] = "Content-Type";
inline constexpr char kContentLocation[] = "Content-Location";
inline constexpr char kContentMD5[] = "Content-MD5";
inline constexpr char kEntityTag[] = "ETag";
inline constexpr char kAuthorization[] = "Authorization";
inline constexpr char kUploadThreshold[] = "X-Upload-Threshold";
inline constexpr char kContentLengthOverride[] = "X-Content-Length";
inline constexpr char kSecurityToken[] = "x-amz-security-token";
inline constexpr char kAcceptEncoding[] = "Accept-Encoding";
inline constexpr char kAccept[] = "Accept";
inline constexpr char kContentEncoding[] = "Content-Encoding";
inline constexpr char kGzip[] = "gzip";
inline constexpr char kBytes[] = "bytes";
}  // namespace http

// The HTTP vocabulary shared by requests, transfers and upload protocols.
struct KovoHttpUtils {
  // "GET" for an unknown value (a programming error).
  static std::string toString(kovo_http_verb verb);
  // PUT, POST and PATCH may carry a body.
  static bool mayCarryBody(kovo_http_verb verb);
  static bool equalsIgnoreCase(const std::string& first, const std::string& second);

  // The parts of a Content-Range value; false when it is malformed. total is the text after "/".
  static bool parseContentRangeHeader(const std::string& value, std::uint64_t& first,
                                      std::uint64_t& last, std::string& total);
  // Whether the value describes bytes from start on that lie within the requested range; a length
  // of 0 means to the end of the resource.
  static bool validateContentRangeHeader(const std::string& value, std::uint64_t start,
                                         std::uint64_t length);

  // The URL for log lines: without user information, query and fragment, which may hold secrets.
  static std::string redactUrl(const std::string& url);
};

}  // namespace kovo
