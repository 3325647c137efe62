#pragma once

#include <kovo/kovo.h>

#include <boost/noncopyable.hpp>
#include <cstdint>
#include <memory>
#include <string>

#include "body/data_sink.h"
#include "body/data_source.h"
#include "core/header_list.h"

namespace kovo {

class ClientCallbackHandler;

// What differs between upload services. A chunked upload owns one; its requests ask it for bodies,
// sinks and headers, part responses reach it from several workers at once.
class MimeSourceFactory : boost::noncopyable {
 public:
  // Stands for "no part" where a part index is expected.
  static constexpr std::uint32_t kNoPart = 0xFFFFFFFF;

  virtual ~MimeSourceFactory() = default;
  virtual std::unique_ptr<DataSource> createChunkSource(const std::string& filePath,
                                                        std::unique_ptr<DataSource> part) = 0;
  virtual std::unique_ptr<DataSource> createInitialisationSource(
      std::unique_ptr<DataSource> body) = 0;
  virtual std::unique_ptr<DataSource> createFinalisationSource(const std::string& filePath,
                                                               const std::string& contentType,
                                                               std::uint64_t contentLength) = 0;
  virtual std::unique_ptr<DataSink> createResponseSink(
      std::shared_ptr<ClientCallbackHandler> callbackHandler) = 0;
  virtual kovo_http_verb getFinalisationMethod() const = 0;
  virtual std::string getInitialisationUrl(const std::string& url) const = 0;
  virtual std::string getFinalisationUrl(const std::string& url) const = 0;
  virtual bool isInitialisationNeeded(bool chunkingAllowed) const = 0;
  // The whole file goes with the initialisation request.
  virtual bool initialisationWillCompleteTransfer() const = 0;
  virtual kovo_http_verb getInitialisationMethod() const = 0;
  virtual bool isInitialisationBodyNeeded() const = 0;
  virtual bool isChunkingSupported(bool chunkingRequested) const = 0;
  virtual bool isFinalisationNeeded() const = 0;
  virtual bool sendsFirstChunkAlone() const = 0;
  virtual bool sendsLastChunkAlone() const = 0;
  virtual std::string getChunkUrl(const std::string& url, std::uint32_t partIndex, bool isLast) = 0;
  virtual void processChunkResponseHeader(std::uint32_t partIndex, const Header& header) = 0;
  virtual std::uint64_t adjustChunkSize(std::uint64_t totalLength,
                                        std::uint64_t configuredSize) const = 0;
  virtual void addRequestHeaders(kovo_chunk_type kind, const std::string& contentType,
                                 const std::string& url, std::uint32_t chunkNumber,
                                 HeaderList& headers) = 0;
  virtual bool processInitialisationResponse(std::uint32_t status, const std::string& body,
                                             bool& finishNow) = 0;
  // True when the factory keeps the checksum, so that it leaves the client's headers.
  virtual bool setFileChecksum(const std::string& md5) = 0;
  virtual std::uint32_t filterHttpStatus(std::uint32_t status) = 0;

  // Whether the protocol will ask for the checksum of a body of this length; and the checksum, for
  // the body to be read once only and at a time of the transfer's choosing.
  virtual bool isChecksumNeeded(std::uint64_t bodyLength) const {
    static_cast<void>(bodyLength);
    return false;
  }
  virtual void offerComputedChecksum(const std::string& md5) { static_cast<void>(md5); }
  // Names the upload whose parts the resume database may hold under the file's path.
  virtual void setResumeTarget(const std::string& target) { static_cast<void>(target); }
  // This upload neither records parts in the resume database nor reads them from it.
  virtual void disableResume() {}
  // Whether parts 0 to partCount - 1 are all known to be stored; a protocol whose service checks
  // that itself need not know.
  virtual bool holdsAllParts(std::uint32_t partCount) {
    static_cast<void>(partCount);
    return true;
  }
  // Whether the body of a successful answer to the finalisation request reports success.
  virtual bool acceptsFinalisation(const std::string& body) const {
    static_cast<void>(body);
    return true;
  }
};

}  // namespace kovo
