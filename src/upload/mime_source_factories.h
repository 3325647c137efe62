#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "http/mime_source_factory.h"

namespace kovo {

class SqliteResumeCache;

// The upload protocol for the client's answer to the server-type question; every value other than
// S3 and sync service is the plain one. resumeCache may be null. multipartThreshold: 0 keeps the
// process-wide one.
std::unique_ptr<MimeSourceFactory> createMimeSourceFactory(std::uint32_t serverType,
                                                           SqliteResumeCache* resumeCache,
                                                           const std::string& filePath,
                                                           bool tryResumableTransfer,
                                                           std::uint64_t multipartThreshold);

}  // namespace kovo
