#pragma once

#include "upload/server.h"

namespace kovo {

// S3 behind the sync service: parts are signed with temporary credentials (signature version 2).
class AmazonServer : public Server {
 public:
  std::string getChunkUrl(const std::string& url, std::uint32_t partIndex, bool isLast) override;
  void addChunkHeaders(kovo_chunk_type kind, const std::string& url, std::uint32_t chunkNumber,
                       const std::string& contentType, HeaderList& headers) override;
  bool processResponse(const std::string& answer) override;
  std::string createFinalisationBody(const std::string& contentType,
                                     std::uint64_t contentLength) override;
  void processChunkResponseHeader(std::uint32_t partIndex, const Header& header) override;

 private:
  std::string _uploadId;
  std::string _accessKey;
  std::string _secretKey;
  std::string _sessionToken;
  std::string _assetARN;
};

}  // namespace kovo
