#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

#include "core/lock.h"
#include "http/mime_source_factory.h"
#include "upload/server.h"

namespace kovo {

class SqliteResumeCache;

// The upload to a sync service: a small file travels whole in the initialisation request; for a
// larger one the service names a storage provider, to which the parts go, and a last request
// reports them back to the service.
class SyncServiceSourceFactory : public MimeSourceFactory {
 public:
  // resumeCache may be null. multipartThreshold: 0 keeps the process-wide one.
  SyncServiceSourceFactory(SqliteResumeCache* resumeCache, std::string filePath,
                           bool tryResumableTransfer, std::uint64_t multipartThreshold);

  std::unique_ptr<DataSource> createChunkSource(const std::string& filePath,
                                                std::unique_ptr<DataSource> part) override;
  std::unique_ptr<DataSource> createInitialisationSource(std::unique_ptr<DataSource> body) override;
  std::unique_ptr<DataSource> createFinalisationSource(const std::string& filePath,
                                                       const std::string& contentType,
                                                       std::uint64_t contentLength) override;
  std::unique_ptr<DataSink> createResponseSink(
      std::shared_ptr<ClientCallbackHandler> callbackHandler) override;
  kovo_http_verb getFinalisationMethod() const override { return KOVO_HTTP_PUT; }
  std::string getInitialisationUrl(const std::string& url) const override { return url; }
  std::string getFinalisationUrl(const std::string& url) const override;
  bool isInitialisationNeeded(bool) const override { return true; }
  bool initialisationWillCompleteTransfer() const override {
    return _initialisationCompletesTransfer;
  }
  kovo_http_verb getInitialisationMethod() const override { return KOVO_HTTP_PUT; }
  bool isInitialisationBodyNeeded() const override { return true; }
  bool isChunkingSupported(bool) const override { return true; }
  bool isFinalisationNeeded() const override { return !_initialisationCompletesTransfer; }
  bool sendsFirstChunkAlone() const override { return false; }
  bool sendsLastChunkAlone() const override { return false; }
  std::string getChunkUrl(const std::string& url, std::uint32_t partIndex, bool isLast) override;
  void processChunkResponseHeader(std::uint32_t partIndex, const Header& header) override;
  std::uint64_t adjustChunkSize(std::uint64_t totalLength,
                                std::uint64_t configuredSize) const override;
  void addRequestHeaders(kovo_chunk_type kind, const std::string& contentType,
                         const std::string& url, std::uint32_t chunkNumber,
                         HeaderList& headers) override;
  bool processInitialisationResponse(std::uint32_t status, const std::string& body,
                                     bool& finishNow) override;
  bool setFileChecksum(const std::string& md5) override;
  std::uint32_t filterHttpStatus(std::uint32_t status) override;

  bool isChecksumNeeded(std::uint64_t bodyLength) const override;
  void offerComputedChecksum(const std::string& md5) override;
  void setResumeTarget(const std::string& target) override;
  void disableResume() override { _tryResumableTransfer = false; }

 private:
  bool isSentInParts() const {
    return _pendingSource != nullptr && !_initialisationCompletesTransfer;
  }
  // The file's checksum, read from the pending source when nobody has given it.
  std::string fileChecksum();
  bool processResponse(const std::string& body);

  SqliteResumeCache* const _resumeCache;
  const std::string _filePath;
  bool _tryResumableTransfer;
  std::string _resumeTarget;

  // Written by the initialisation request's thread, also read by threads that ask about a cancel.
  std::atomic<bool> _initialisationCompletesTransfer{false};
  // Touched by one request at a time: the initialisation's, then the finalisation's.
  std::unique_ptr<DataSource> _pendingSource;
  // Written before any part request exists.
  std::unique_ptr<Server> _server;
  std::string _cloudProvider;

  mutable RecursiveLock _checksumLock;
  std::string _md5Sum KOVO_GUARDED_BY(_checksumLock);
  std::string _computedChecksum KOVO_GUARDED_BY(_checksumLock);
};

}  // namespace kovo
