#include "support/serve_resource.h"

#include <zlib.h>

#include <algorithm>
#include <atomic>
#include <memory>
#include <stdexcept>

namespace kovo::test {
namespace {

constexpr uint64_t kPiece = 64 * 1024;

void sendChunked(const Resource& resource, Responder& to) {
  for (uint64_t at = 0; at < resource.size(); at += kPiece) {
    to.chunk(resource.bytes(at, std::min(kPiece, resource.size() - at)));
  }
  to.endChunks();
}

void sendWhole(const OriginRequest& request, Responder& to, const Resource& resource,
               const ServeOptions& options, Headers headers) {
  const bool withBody = request.verb != "HEAD";
  const std::string accepted = request.header("Accept-Encoding").value_or("");
  if (options.gzip && accepted.find("gzip") != std::string::npos) {
    const std::string packed = gzip(resource.all());
    headers.emplace_back("Content-Encoding", "gzip");
    to.respond(200, headers, packed);
  } else if (options.chunked) {
    headers.emplace_back("Transfer-Encoding", "chunked");
    to.head(200, headers);
    if (withBody) sendChunked(resource, to);
  } else if (options.closeDelimited) {
    headers.emplace_back("Connection", "close");
    to.closeAfterwards();
    to.head(200, headers);
    if (withBody) to.range(resource, 0, resource.size());
  } else {
    headers.emplace_back("Content-Length", std::to_string(resource.size()));
    to.head(200, headers);
    if (withBody) to.range(resource, 0, resource.size());
  }
}

void sendRange(const OriginRequest& request, Responder& to, const Resource& resource,
               const ServeOptions& options, Headers headers) {
  const OriginRequest::Range range = *request.range();
  const uint64_t size = resource.size();
  if (range.first >= size) {
    headers.emplace_back("Content-Range", "bytes */" + std::to_string(size));
    to.respond(416, headers);
    return;
  }
  uint64_t last = std::min(range.last.value_or(size - 1), size - 1);
  if (options.mostPerAnswer) last = std::min(last, range.first + *options.mostPerAnswer - 1);
  const uint64_t length = last - range.first + 1;
  headers.emplace_back("Content-Range", "bytes " + std::to_string(range.first) + '-' +
                                            std::to_string(last) + '/' +
                                            (options.hidesTotal ? "*" : std::to_string(size)));
  headers.emplace_back("Content-Length", std::to_string(length));
  to.head(206, headers);
  if (request.verb != "HEAD") to.range(resource, range.first, length);
}

}  // namespace

OriginHandler serveResource(const Resource& resource, const ServeOptions& options) {
  const auto answered = std::make_shared<std::atomic<size_t>>(0);
  return [resource, options, answered](const OriginRequest& request, Responder& to) {
    if (request.verb != "GET" && request.verb != "HEAD") {
      to.respond(405);
      return;
    }
    const bool later = options.changesAfter && (*answered)++ >= *options.changesAfter;
    const Resource content = later ? Resource(options.laterSeed, resource.size()) : resource;
    const std::string& etag = later ? options.laterEtag : options.etag;
    Headers headers = options.extraHeaders;
    if (!etag.empty()) headers.emplace_back("ETag", etag);
    if (!options.lastModified.empty()) headers.emplace_back("Last-Modified", options.lastModified);
    if (!options.contentType.empty()) headers.emplace_back("Content-Type", options.contentType);
    if (!options.ignoresRange) headers.emplace_back("Accept-Ranges", "bytes");

    const std::optional<std::string> condition = request.header("If-Range");
    const bool sameVersion = !condition || *condition == etag || *condition == options.lastModified;
    if (request.range() && !options.ignoresRange && sameVersion) {
      sendRange(request, to, content, options, std::move(headers));
    } else {
      sendWhole(request, to, content, options, std::move(headers));
    }
  };
}

std::string gzip(std::string_view data) {
  z_stream stream{};
  /* 15 window bits, and 16 for the gzip wrapping. */
  if (deflateInit2(&stream, Z_DEFAULT_COMPRESSION, Z_DEFLATED, 15 + 16, 8, Z_DEFAULT_STRATEGY) !=
      Z_OK) {
    throw std::runtime_error("deflateInit2");
  }
  std::string packed(deflateBound(&stream, data.size()) + 32, '\0');
  std::string input(data);
  stream.next_in = reinterpret_cast<Bytef*>(input.data());
  stream.avail_in = static_cast<uInt>(input.size());
  stream.next_out = reinterpret_cast<Bytef*>(packed.data());
  stream.avail_out = static_cast<uInt>(packed.size());
  const int result = deflate(&stream, Z_FINISH);
  deflateEnd(&stream);
  if (result != Z_STREAM_END) throw std::runtime_error("deflate");
  packed.resize(stream.total_out);
  return packed;
}

}  // namespace kovo::test
