#include "cache/cacheable_response.h"

#include <strings.h>

#include <algorithm>
#include <charconv>
#include <string_view>
#include <utility>
#include <vector>

#include "cache/http_get_cache.h"
#include "core/assertion.h"

namespace kovo {
namespace {

constexpr char kBlank[] = " \t";

bool isHeader(const Header& header, const char* name) {
  return ::strcasecmp(header.first.c_str(), name) == 0;
}

char toLower(char c) {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

bool containsIgnoringCase(std::string_view text, std::string_view lowerCasePart) {
  return std::search(text.begin(), text.end(), lowerCasePart.begin(), lowerCasePart.end(),
                     [](char a, char b) { return toLower(a) == b; }) != text.end();
}

bool startsWithIgnoringCase(std::string_view text, std::string_view lowerCaseStart) {
  return containsIgnoringCase(text.substr(0, lowerCaseStart.size()), lowerCaseStart);
}

std::string_view trim(std::string_view text) {
  const std::size_t first = text.find_first_not_of(kBlank);
  return first == std::string_view::npos
             ? std::string_view()
             : text.substr(first, text.find_last_not_of(kBlank) - first + 1);
}

bool readNumber(std::string_view text, std::uint64_t& number) {
  const char* end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, number);
  return error == std::errc() && stop == end && !text.empty();
}

std::vector<std::string_view> split(std::string_view text, char separator) {
  std::vector<std::string_view> parts;
  for (std::size_t start = 0;;) {
    const std::size_t end = text.find(separator, start);
    parts.push_back(text.substr(start, end - start));
    if (end == std::string_view::npos) {
      return parts;
    }
    start = end + 1;
  }
}

// "bytes first-last/total"; anything else tells nothing that a stored entry could rely on.
bool readContentRange(std::string_view value, std::uint64_t& first, std::uint64_t& last) {
  const auto bytesAndRangeSpec = split(trim(value), ' ');
  KOVO_ASSERT(bytesAndRangeSpec.size() == 2, "bytesAndRangeSpec.size() == 2");
  if (bytesAndRangeSpec.size() != 2 || bytesAndRangeSpec[0].size() != 5 ||
      !startsWithIgnoringCase(bytesAndRangeSpec[0], "bytes")) {
    return false;
  }
  const auto rangeSpecAndTotal = split(bytesAndRangeSpec[1], '/');
  KOVO_ASSERT(rangeSpecAndTotal.size() == 2, "rangeSpecAndTotal.size() == 2");
  if (rangeSpecAndTotal.size() != 2) {
    return false;
  }
  const auto firstByteAndMaybeLastByte = split(rangeSpecAndTotal[0], '-');
  if (firstByteAndMaybeLastByte.size() != 2 || !readNumber(firstByteAndMaybeLastByte[0], first) ||
      !readNumber(firstByteAndMaybeLastByte[1], last) || last < first) {
    return false;
  }
  std::uint64_t total = 0;
  return rangeSpecAndTotal[1] == "*" || (readNumber(rangeSpecAndTotal[1], total) && last < total);
}

}  // namespace

bool isWeakEntityTag(const std::string& etag) {
  return startsWithIgnoringCase(etag, "w/");
}

CacheValidators decisiveValidators(std::string etag, std::string lastModifiedDate) {
  const bool tells = !etag.empty() && !isWeakEntityTag(etag);
  return {std::move(etag), tells ? std::string() : std::move(lastModifiedDate)};
}

bool isCacheableResponse(const HeaderList& headers, std::uint64_t entryLimit) {
  bool hasValidator = false;
  bool hasLength = false;
  bool isTooBig = false;
  for (const Header& header : headers) {
    if (isHeader(header, "Cache-Control")) {
      if (containsIgnoringCase(header.second, "no-cache") ||
          containsIgnoringCase(header.second, "no-store")) {
        return false;
      }
    } else if (isHeader(header, "ETag")) {
      if (isWeakEntityTag(header.second)) {
        return false;
      }
      hasValidator = true;
    } else if (isHeader(header, "Last-Modified")) {
      hasValidator = true;
    } else if (isHeader(header, "Content-Length")) {
      std::uint64_t length = 0;
      hasLength = true;
      isTooBig = isTooBig || !readNumber(trim(header.second), length) || length > entryLimit;
    }
  }
  return hasValidator && hasLength && !isTooBig;
}

bool describeCacheable(const HeaderList& headers, std::uint64_t entryLimit, std::uint64_t size,
                       CacheableResponse& response) {
  if (size == 0 || !isCacheableResponse(headers, entryLimit)) {
    return false;
  }
  std::string_view contentRange;
  for (const Header& header : headers) {
    if (isHeader(header, "Last-Modified")) {
      response.lastModified = header.second;
    } else if (isHeader(header, "ETag")) {
      response.etag = header.second;
    } else if (isHeader(header, "Content-Range")) {
      contentRange = header.second;
    } else if (isHeader(header, "Content-Length")) {
      std::uint64_t length = 0;
      if (!readNumber(trim(header.second), length) || length != size) {
        return false;
      }
    } else if (isHeader(header, "Content-Encoding")) {
      if (trim(header.second).size() != 0 && !containsIgnoringCase(header.second, "identity")) {
        return false;
      }
    } else if (isHeader(header, "Content-Type")) {
      if (startsWithIgnoringCase(trim(header.second), "multipart/byteranges")) {
        return false;
      }
    }
  }
  if (response.etag.empty() && response.lastModified.empty()) {
    return false;
  }
  response.firstByte = 0;
  if (contentRange.empty()) {
    return true;
  }
  std::uint64_t lastByte = 0;
  return readContentRange(contentRange, response.firstByte, lastByte) &&
         lastByte - response.firstByte == size - 1 &&
         lastByte <= static_cast<std::uint64_t>(INT64_MAX) - 1;
}

}  // namespace kovo
