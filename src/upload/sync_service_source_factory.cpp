#include "upload/sync_service_source_factory.h"

#include <algorithm>
#include <utility>

#include "body/null_source.h"
#include "body/string_stream_sink.h"
#include "core/assertion.h"
#include "http/kovo_http_utils.h"
#include "upload/json_schema.h"
#include "upload/sync_service_source.h"
#include "upload/upload_threshold.h"

namespace kovo {
namespace {

constexpr char kAnswerMediaType[] = "application/vnd.syncservice.v2.hal+json";
// Bounds of the storage providers.
constexpr std::uint64_t kSmallestPart = 5242880;
constexpr std::uint64_t kMostParts = 10000;

}  // namespace

SyncServiceSourceFactory::SyncServiceSourceFactory(SqliteResumeCache* resumeCache,
                                                   std::string filePath, bool tryResumableTransfer,
                                                   std::uint64_t multipartThreshold)
    : _resumeCache(resumeCache),
      _filePath(std::move(filePath)),
      _tryResumableTransfer(tryResumableTransfer) {
  if (multipartThreshold != 0) {
    UploadThreshold::set(multipartThreshold);
  }
}

// --- Bodies and sinks ---------------------------------------------------------------------------

std::unique_ptr<DataSource> SyncServiceSourceFactory::createChunkSource(
    const std::string& filePath, std::unique_ptr<DataSource> part) {
  return std::make_unique<SyncServiceSource>(std::move(part), filePath);
}

std::unique_ptr<DataSource> SyncServiceSourceFactory::createInitialisationSource(
    std::unique_ptr<DataSource> body) {
  if (body->getContentLength() > UploadThreshold::get()) {
    _pendingSource = std::move(body);
    _initialisationCompletesTransfer = false;
    return std::make_unique<NullSource>();
  }
  _pendingSource.reset();
  _initialisationCompletesTransfer = true;
  return body;
}

std::unique_ptr<DataSource> SyncServiceSourceFactory::createFinalisationSource(
    const std::string& filePath, const std::string& contentType, std::uint64_t contentLength) {
  std::string document;
  KOVO_ASSERT(_server, "the storage server is known");
  if (_server != nullptr) {
    document = _server->createFinalisationBody(contentType, contentLength);
  }
  return std::make_unique<SyncServiceSource>(std::make_unique<NullSource>(), filePath,
                                             std::move(document));
}

std::unique_ptr<DataSink> SyncServiceSourceFactory::createResponseSink(
    std::shared_ptr<ClientCallbackHandler>) {
  return std::make_unique<StringStreamSink>();
}

// --- Addresses, headers, statuses ---------------------------------------------------------------

std::string SyncServiceSourceFactory::getFinalisationUrl(const std::string& url) const {
  return _server == nullptr ? url : _server->getFinalizeHref();
}

std::string SyncServiceSourceFactory::getChunkUrl(const std::string& url, std::uint32_t partIndex,
                                                  bool isLast) {
  return _server == nullptr ? url : _server->getChunkUrl(url, partIndex, isLast);
}

void SyncServiceSourceFactory::addRequestHeaders(kovo_chunk_type kind,
                                                 const std::string& contentType,
                                                 const std::string& url, std::uint32_t chunkNumber,
                                                 HeaderList& headers) {
  const auto addLength = [this, &headers] {
    if (isSentInParts()) {
      headers.emplace_back(http::kContentLengthOverride,
                           std::to_string(_pendingSource->getContentLength()));
    }
  };
  const auto addChecksum = [this, &headers] {
    const std::string md5 = fileChecksum();
    if (!md5.empty()) {
      headers.emplace_back(http::kContentMD5, md5);
    }
  };
  switch (kind) {
    case KOVO_CHUNK_TYPE_INIT:
      addLength();
      if (isSentInParts()) {
        headers.emplace_back(http::kAccept, kAnswerMediaType);
      }
      addChecksum();
      break;
    case KOVO_CHUNK_TYPE_CHUNK:
      if (_server != nullptr) {
        _server->addChunkHeaders(kind, url, chunkNumber, contentType, headers);
      }
      break;
    case KOVO_CHUNK_TYPE_FINALISE:
      addChecksum();
      addLength();
      break;
    case KOVO_CHUNK_TYPE_SINGLE:
      break;
    default:
      KOVO_ASSERT(false, "unknown request kind");
      break;
  }
}

void SyncServiceSourceFactory::processChunkResponseHeader(std::uint32_t partIndex,
                                                          const Header& header) {
  if (KovoHttpUtils::equalsIgnoreCase(header.first, http::kUploadThreshold)) {
    UploadThreshold::setFromHeader(header.second);
  } else if (partIndex != kNoPart && _server != nullptr) {
    _server->processChunkResponseHeader(partIndex, header);
  }
}

std::uint64_t SyncServiceSourceFactory::adjustChunkSize(std::uint64_t totalLength,
                                                        std::uint64_t configuredSize) const {
  const std::uint64_t chunk = std::max(configuredSize, kSmallestPart);
  const std::uint64_t parts = (totalLength - 1 + chunk) / chunk;
  return parts <= kMostParts ? chunk : totalLength / (kMostParts - 1);
}

std::uint32_t SyncServiceSourceFactory::filterHttpStatus(std::uint32_t status) {
  if (status != 413) {
    return status;
  }
  // Too large to go whole: the answer holds the plan for the parts.
  _initialisationCompletesTransfer = false;
  return 202;
}

// --- The service's answer -----------------------------------------------------------------------

bool SyncServiceSourceFactory::processInitialisationResponse(std::uint32_t status,
                                                             const std::string& body,
                                                             bool& finishNow) {
  if (_initialisationCompletesTransfer) {
    finishNow = true;
    return true;
  }
  const bool understood = status == 202 && processResponse(body);
  finishNow = !understood;
  return understood;
}

bool SyncServiceSourceFactory::processResponse(const std::string& body) {
  // Whether this parse succeeds does not matter: the server's own decides.
  JSONSchema schema;
  schema.string("cloudProvider", &_cloudProvider);
  schema.parseJSON(body);
  _server = Server::CreateServer(_cloudProvider);
  _server->setUpload(_tryResumableTransfer, _resumeCache, _filePath, _resumeTarget);
  _server->setFileChecksum(fileChecksum());
  if (!_server->processResponse(body)) {
    return false;
  }
  _server->loadRecordedSegments();
  return true;
}

void SyncServiceSourceFactory::setResumeTarget(const std::string& target) {
  _resumeTarget = target;
}

// --- Checksum -----------------------------------------------------------------------------------

bool SyncServiceSourceFactory::setFileChecksum(const std::string& md5) {
  ScopedLock guard(_checksumLock);
  _md5Sum = md5;
  return true;
}

bool SyncServiceSourceFactory::isChecksumNeeded(std::uint64_t bodyLength) const {
  ScopedLock guard(_checksumLock);
  return _md5Sum.empty() && bodyLength > UploadThreshold::get();
}

void SyncServiceSourceFactory::offerComputedChecksum(const std::string& md5) {
  ScopedLock guard(_checksumLock);
  _computedChecksum = md5;
}

std::string SyncServiceSourceFactory::fileChecksum() {
  {
    ScopedLock guard(_checksumLock);
    if (_md5Sum.empty() && isSentInParts()) {
      _md5Sum = _computedChecksum;
    }
    if (!_md5Sum.empty() || !isSentInParts()) {
      return _md5Sum;
    }
  }
  // Reads the whole body: without the lock, which part requests take for the client's headers.
  const std::string md5 = _pendingSource->getMD5Checksum();
  ScopedLock guard(_checksumLock);
  if (_md5Sum.empty()) {
    _md5Sum = md5;
  }
  return _md5Sum;
}

}  // namespace kovo
