#pragma once

#include "upload/server.h"

namespace kovo {

// Azure block storage behind the sync service: parts are blocks, authorised by a shared-access
// token.
class AzureServer : public Server {
 public:
  std::string getChunkUrl(const std::string& url, std::uint32_t partIndex, bool isLast) override;
  void addChunkHeaders(kovo_chunk_type, const std::string&, std::uint32_t, const std::string&,
                       HeaderList&) override {}
  bool processResponse(const std::string& answer) override;
  std::string createFinalisationBody(const std::string& contentType,
                                     std::uint64_t contentLength) override;
  void processChunkResponseHeader(std::uint32_t partIndex, const Header& header) override;

 private:
  std::string _token;
  std::string _bucketName;
  std::string _objectId;
  // Blocks on their way: requested, and not yet known to be stored.
  Segments _blockIds KOVO_GUARDED_BY(_segmentsLock);
};

}  // namespace kovo
