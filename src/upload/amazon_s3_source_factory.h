#pragma once

#include <cstdint>
#include <map>
#include <string>

#include "core/lock.h"
#include "http/mime_source_factory.h"

namespace kovo {

// The S3 multipart upload: an initiate request, one request per part, and a completion that lists
// every part with its entity tag. Authorisation is the client's business (its URL and headers).
class AmazonS3SourceFactory : public MimeSourceFactory {
 public:
  std::unique_ptr<DataSource> createChunkSource(const std::string& filePath,
                                                std::unique_ptr<DataSource> part) override;
  std::unique_ptr<DataSource> createInitialisationSource(std::unique_ptr<DataSource> body) override;
  std::unique_ptr<DataSource> createFinalisationSource(const std::string& filePath,
                                                       const std::string& contentType,
                                                       std::uint64_t contentLength) override;
  std::unique_ptr<DataSink> createResponseSink(
      std::shared_ptr<ClientCallbackHandler> callbackHandler) override;
  kovo_http_verb getFinalisationMethod() const override { return KOVO_HTTP_POST; }
  std::string getInitialisationUrl(const std::string& url) const override;
  std::string getFinalisationUrl(const std::string& url) const override;
  bool isInitialisationNeeded(bool chunkingAllowed) const override { return chunkingAllowed; }
  bool initialisationWillCompleteTransfer() const override { return false; }
  kovo_http_verb getInitialisationMethod() const override { return KOVO_HTTP_POST; }
  bool isInitialisationBodyNeeded() const override { return false; }
  bool isChunkingSupported(bool chunkingRequested) const override { return chunkingRequested; }
  bool isFinalisationNeeded() const override { return true; }
  bool sendsFirstChunkAlone() const override { return false; }
  bool sendsLastChunkAlone() const override { return false; }
  std::string getChunkUrl(const std::string& url, std::uint32_t partIndex, bool isLast) override;
  void processChunkResponseHeader(std::uint32_t partIndex, const Header& header) override;
  std::uint64_t adjustChunkSize(std::uint64_t totalLength,
                                std::uint64_t configuredSize) const override;
  void addRequestHeaders(kovo_chunk_type, const std::string&, const std::string&, std::uint32_t,
                         HeaderList&) override {}
  bool processInitialisationResponse(std::uint32_t status, const std::string& body,
                                     bool& finishNow) override;
  bool setFileChecksum(const std::string&) override { return false; }
  std::uint32_t filterHttpStatus(std::uint32_t status) override { return status; }
  // S3 completes an upload from whatever parts the document lists.
  bool holdsAllParts(std::uint32_t partCount) override;
  // S3 may send the 200 of a completion before it knows the outcome: the document decides.
  bool acceptsFinalisation(const std::string& body) const override;

 private:
  // Written before any part request exists.
  std::string _uploadId;
  RecursiveLock _partsLock;
  // Part number (from 1) to entity tag.
  std::map<std::uint32_t, std::string> _parts KOVO_GUARDED_BY(_partsLock);
};

}  // namespace kovo
