// The headers that decide whether a response's body is kept, and as which bytes.
#include "cache/cacheable_response.h"

#include "fuzz/fuzz_target.h"
#include "http/kovo_http_utils.h"
#include "platform/linux/response_head_builder.h"

namespace kovo::test {
namespace {

constexpr std::uint64_t kEntryLimit = 1'000'000;

}  // namespace

// The size of the body, and headers.
KOVO_FUZZ_TARGET(cacheable_response) {
  const std::uint64_t size = input.number();
  ResponseHeadBuilder builder;
  builder.add("HTTP/1.1 206 Partial Content\n");
  while (!input.isEmpty()) {
    if (!builder.add(input.line() + "\n")) {
      return;
    }
  }
  const HeaderList& headers = builder.head().headers;
  CacheableResponse response;
  if (!describeCacheable(headers, kEntryLimit, size, response)) {
    return;
  }
  require(isCacheableResponse(headers, kEntryLimit), "what is described is cacheable");
  require(size > 0 && size <= kEntryLimit, "an entry is within the limit");
  require(!response.etag.empty() || !response.lastModified.empty(), "an entry has a validator");
  require(!isWeakEntityTag(response.etag), "the validator is a strong one");
  require(response.firstByte <= INT64_MAX - size, "the entry's end is an offset");
  for (const auto& [name, value] : headers) {
    if (KovoHttpUtils::equalsIgnoreCase(name, "Content-Length")) {
      require(KovoHttpUtils::validateContentRangeHeader(
                  "bytes 0-" + std::to_string(size - 1) + "/" + value, 0, size),
              "the body has its length");
    } else if (KovoHttpUtils::equalsIgnoreCase(name, "Cache-Control")) {
      require(value != "no-store" && value != "no-cache", "what is forbidden is not kept");
    }
  }
  // The last one counts.
  const Header* range = nullptr;
  for (const Header& header : headers) {
    if (KovoHttpUtils::equalsIgnoreCase(header.first, "Content-Range")) {
      range = &header;
    }
  }
  if (range == nullptr || range->second.empty()) {
    require(response.firstByte == 0, "a whole body begins at the start");
    return;
  }
  std::string value = range->second;
  for (char& c : value) {
    c = c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
  }
  require(KovoHttpUtils::validateContentRangeHeader(value, response.firstByte, size),
          "the request that got the body takes it for the same range");
}

}  // namespace kovo::test
