#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "cache/cacheable_response.h"

namespace kovo {

// A fast, not cryptographic, digest of an entry: what it is of, where it begins, and its bytes. It
// tells an entry that was damaged in the file from one that was not.
std::uint64_t entryChecksum(const std::string& url, const CacheableResponse& response,
                            const void* data, std::size_t size);

}  // namespace kovo
