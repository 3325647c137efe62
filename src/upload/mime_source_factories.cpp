#include "upload/mime_source_factories.h"

#include "upload/amazon_s3_source_factory.h"
#include "upload/no_mime_source_factory.h"
#include "upload/sync_service_source_factory.h"

namespace kovo {

std::unique_ptr<MimeSourceFactory> createMimeSourceFactory(std::uint32_t serverType,
                                                           SqliteResumeCache* resumeCache,
                                                           const std::string& filePath,
                                                           bool tryResumableTransfer,
                                                           std::uint64_t multipartThreshold) {
  switch (serverType) {
    case KOVO_SERVER_TYPE_S3:
      return std::make_unique<AmazonS3SourceFactory>();
    case KOVO_SERVER_TYPE_SYNC_SERVICE:
      return std::make_unique<SyncServiceSourceFactory>(resumeCache, filePath, tryResumableTransfer,
                                                        multipartThreshold);
    default:
      return std::make_unique<NoMimeSourceFactory>();
  }
}

}  // namespace kovo
