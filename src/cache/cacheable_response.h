#pragma once

#include <cstdint>
#include <string>

#include "core/header_list.h"

namespace kovo {

// What a response's headers say about keeping its body: the validators, and where in the resource
// the body begins.
struct CacheableResponse {
  std::string etag;
  std::string lastModified;
  std::uint64_t firstByte = 0;
};

// Whether a response may be kept at all: not forbidden, validated by something strong, and of a
// known length within entryLimit.
bool isCacheableResponse(const HeaderList& headers, std::uint64_t entryLimit);

// As above for a body of size bytes that has arrived; false also when the headers promise another
// size, or the body is not a plain part of the resource (encoded, or in several parts).
bool describeCacheable(const HeaderList& headers, std::uint64_t entryLimit, std::uint64_t size,
                       CacheableResponse& response);

bool isWeakEntityTag(const std::string& etag);

}  // namespace kovo
