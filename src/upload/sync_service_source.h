#pragma once

#include "upload/octet_stream_source.h"

namespace kovo {

// The body of a sync service request.
class SyncServiceSource : public OctetStreamSource {
 public:
  using OctetStreamSource::OctetStreamSource;
};

}  // namespace kovo
