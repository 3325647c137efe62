#pragma once

#include <optional>
#include <string>

#include "support/fault_origin.h"
#include "support/resource.h"

namespace kovo::test {

/** How serveResource departs from a well-behaved range server; the defaults do not. */
struct ServeOptions {
  std::string etag = "\"v1\"";                                /* empty: none */
  std::string lastModified = "Wed, 21 Oct 2015 07:28:00 GMT"; /* empty: none */
  std::string contentType = "application/octet-stream";       /* empty: none */
  Headers extraHeaders;
  /* From this many answered requests on, etag and content are those of another version. */
  std::optional<size_t> changesAfter;
  std::string laterEtag = "\"v2\"";
  uint64_t laterSeed = 0x5eed;
  bool ignoresRange = false;
  /* A whole answer has no Content-Length: chunked transfer-encoding, or the end of the connection.
   */
  bool chunked = false;
  bool closeDelimited = false;
  /* "bytes a-b" "/" "*" in Content-Range. */
  bool hidesTotal = false;
  /* A 206 brings, and promises, at most so many bytes. */
  std::optional<uint64_t> mostPerAnswer;
  /* Whole answers are gzip-encoded for clients that accept it. */
  bool gzip = false;
};

/** A handler that serves resource on every path to GET and HEAD, with Range and If-Range. */
OriginHandler serveResource(const Resource& resource, const ServeOptions& options = {});

/** data as one gzip member. */
std::string gzip(std::string_view data);

}  // namespace kovo::test
