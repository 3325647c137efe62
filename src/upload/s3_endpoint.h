#pragma once

#include <kovo/kovo.h>

#include <string>

namespace kovo {

// The domain under which URLs count as S3 when they are signed, process-wide. Null or empty
// restores the public S3 domain with its regional forms. KOVO_ERROR_INVALID_PARAMETERS for a text
// that cannot be a host name.
kovo_error setS3Endpoint(const char* domain);

// The resource that signature version 2 names for a URL: "/bucket/key?query" whether the URL is
// virtual-hosted style (the bucket stands before the endpoint's domain in the host) or path style
// (the host is the endpoint). "/" for a URL of neither form.
std::string canonicalS3Resource(const std::string& url);

}  // namespace kovo
