#pragma once

#include "upload/octet_stream_source.h"

namespace kovo {

// The body of an S3 request.
class AmazonS3Source : public OctetStreamSource {
 public:
  using OctetStreamSource::OctetStreamSource;
};

}  // namespace kovo
