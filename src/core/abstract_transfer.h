#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "core/byte_block.h"
#include "core/header_list.h"
#include "core/kovo_error.h"
#include "core/kovo_range.h"
#include "core/mutex.h"
#include "core/work_provider.h"

namespace kovo {

class HttpGetCache;
class KOVOStatsAggregator;
class MimeSourceFactory;
class PlatformFileOStream;
class ProxyConfig;
class Request;
class SqliteResumeCache;
class TransferContext;

// What requests, sources, sinks and upload protocols ask of the transfer they serve. The transfer
// outlives its requests. Any worker thread may call; none of these operations may be called with
// a lock of the caller held.
class AbstractTransfer : public WorkProvider {
 public:
  // Appends the client's query parameters (asked once per transfer).
  virtual void addParameters(HeaderList& parameters) = 0;
  virtual std::string getUrl() const = 0;
  // Records the first error and cancels the transfer because of it; later errors are dropped.
  virtual void setError(std::shared_ptr<KovoError> error) = 0;
  virtual TransferContext* getContext() const = 0;
  // Gives the request the proxy's user name and password, if the client set any.
  virtual void applyProxyCredentials(Request& request) = 0;
  virtual bool hasProxyCredentials() const = 0;
  virtual bool shouldValidateCertificateChain() = 0;
  // The client's headers, fetched once and filtered.
  virtual const HeaderList& getRequestHeaders() = 0;
  virtual void getChunkHeaders(const std::string& url, std::int32_t chunkNumber,
                               HeaderList& headers) = 0;
  virtual KOVOStatsAggregator& getStatsAggregator() = 0;
  virtual ProxyConfig& getProxyConfig() = 0;
  virtual std::string getEntityTag() const = 0;
  virtual std::string getLastModified() const = 0;
  virtual HttpGetCache* getGetCache() = 0;
  virtual KovoRange getRange() const = 0;
  // Null except for uploads.
  virtual MimeSourceFactory* getMimeSourceFactory() = 0;
  virtual SqliteResumeCache* getResumeCache() = 0;
  virtual std::string getContentType() const = 0;
  virtual bool isChunkingAllowed() const = 0;
  // Seconds of inactivity after which a request fails; 0: the platform's own limit.
  virtual std::uint32_t getTimeout() = 0;
  virtual void setFilePath(const std::string& path) = 0;
  virtual std::string getFilePath() const = 0;
  virtual kovo_chunk_type getChunkType() const = 0;
  // Counts a response and maps its status.
  virtual std::uint32_t filterHttpStatus(std::uint32_t status) = 0;
  // Asks the client whether a failed request is to be sent again.
  virtual bool shouldRetryChunk(std::int32_t chunkNumber, std::shared_ptr<KovoError> error,
                                std::shared_ptr<KovoHTTPError> httpError) = 0;
  // Progress plus statistics for bytes moved outside the request's read loop.
  virtual void bytesTransferred(std::uint64_t count) = 0;
  // Bytes of a response for the output file at this offset. A failure becomes the transfer's error.
  virtual void writeData(std::uint64_t offset, const std::uint8_t* data, std::size_t size,
                         const std::shared_ptr<PlatformFileOStream>& stream) = 0;
  // As writeData; a transfer that keeps the bytes takes the block and leaves another one in its
  // place (so that keeping costs no copy).
  virtual void writeBlock(std::uint64_t offset, ByteBlock& block, std::size_t size,
                          const std::shared_ptr<PlatformFileOStream>& stream) = 0;
  // The response for this range is complete: its bytes are in the file when this returns (or the
  // transfer has an error).
  virtual void rangeCompleted(const KovoRange& range,
                              const std::shared_ptr<PlatformFileOStream>& stream) = 0;
  // The attempt that fetched this range has failed: bytes kept for it are dropped.
  virtual void rangeDiscarded(const KovoRange& range) = 0;
  // errorRecorded: the response carries an HTTP error.
  virtual void onResponseHeaders(Request& request, const HeaderList& headers,
                                 bool errorRecorded) = 0;
  virtual void onStatusLine(Request& request, const std::string& httpVersion, std::uint32_t status,
                            const std::string& reason) = 0;
  // Whether the client asked for a range.
  virtual bool hasRange() const = 0;
  virtual bool isReserved2Set() const = 0;
  virtual bool isGzipWanted() const = 0;
  // Bytes per second, 0 = no limit.
  virtual std::uint64_t getUploadTargetSpeed() = 0;
  virtual std::uint64_t getDownloadTargetSpeed() = 0;
  virtual std::uint32_t getWorkerPoolUpperLimit() = 0;
  virtual std::uint32_t getMaxActiveWorkProviders() const = 0;
  virtual std::shared_ptr<Mutex> getMutex() const = 0;
  virtual bool isReserved3Set() const = 0;
  virtual bool isCancelledDueToError() const = 0;
  virtual void setRange(const KovoRange& range) = 0;
  // Answers a client's cancel; called under the state lock.
  virtual bool isCancellable() const = 0;
  // True: the headers are not for the client.
  virtual bool handleResponseHeaders(bool errorRecorded) = 0;
  // May throw: the request then fails with the exception's text.
  virtual void processResponseHeader(Request& request, const Header& header) = 0;
};

}  // namespace kovo
