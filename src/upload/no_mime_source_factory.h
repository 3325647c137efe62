#pragma once

#include "http/mime_source_factory.h"

namespace kovo {

// The identity protocol: one request to the client's URL with the client's verb, the body unchanged
// and the answer delivered to the client; no initialisation, no parts, no finalisation.
class NoMimeSourceFactory : public MimeSourceFactory {
 public:
  std::unique_ptr<DataSource> createChunkSource(const std::string& filePath,
                                                std::unique_ptr<DataSource> part) override;
  std::unique_ptr<DataSource> createInitialisationSource(std::unique_ptr<DataSource> body) override;
  std::unique_ptr<DataSource> createFinalisationSource(const std::string& filePath,
                                                       const std::string& contentType,
                                                       std::uint64_t contentLength) override;
  std::unique_ptr<DataSink> createResponseSink(
      std::shared_ptr<ClientCallbackHandler> callbackHandler) override;
  // The five operations below belong to an initialisation or a finalisation, and this protocol has
  // neither: calling one is a programming error.
  kovo_http_verb getFinalisationMethod() const override;
  std::string getInitialisationUrl(const std::string& url) const override;
  std::string getFinalisationUrl(const std::string& url) const override;
  bool initialisationWillCompleteTransfer() const override;
  kovo_http_verb getInitialisationMethod() const override;

  bool isInitialisationNeeded(bool) const override { return false; }
  bool isInitialisationBodyNeeded() const override { return false; }
  bool isChunkingSupported(bool) const override { return false; }
  bool isFinalisationNeeded() const override { return false; }
  bool sendsFirstChunkAlone() const override { return false; }
  bool sendsLastChunkAlone() const override { return false; }
  std::string getChunkUrl(const std::string& url, std::uint32_t, bool) override { return url; }
  void processChunkResponseHeader(std::uint32_t, const Header&) override {}
  std::uint64_t adjustChunkSize(std::uint64_t, std::uint64_t configuredSize) const override {
    return configuredSize;
  }
  void addRequestHeaders(kovo_chunk_type, const std::string&, const std::string&, std::uint32_t,
                         HeaderList&) override {}
  bool processInitialisationResponse(std::uint32_t status, const std::string& body,
                                     bool& finishNow) override;
  bool setFileChecksum(const std::string&) override { return false; }
  std::uint32_t filterHttpStatus(std::uint32_t status) override { return status; }
};

}  // namespace kovo
