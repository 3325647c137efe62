#pragma once

#include <algorithm>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "callbacks/client_callback_handler.h"
#include "core/abstract_transfer.h"
#include "http/proxy_config.h"
#include "http/request.h"
#include "platform/platform_file_stream.h"
#include "scheduling/kovo_stats_aggregator.h"

namespace kovo::test {

/** Puts bytes at an offset of a text, which grows as needed. */
inline void place(std::string& text, std::uint64_t offset, const std::uint8_t* data,
                  std::size_t size) {
  text.resize(std::max<std::size_t>(text.size(), offset + size));
  std::copy_n(data, size, text.begin() + static_cast<std::ptrdiff_t>(offset));
}

/** A client that keeps what it is given and supplies a body; never asks the engine anything. */
class FakeCallbackHandler : public ClientCallbackHandler {
 public:
  FakeCallbackHandler()
      : ClientCallbackHandler(reinterpret_cast<KovoEngine*>(this), nullptr, nullptr) {}

  std::string requestBody;
  /* Less than the announced body: the client runs dry here. */
  std::size_t requestBodyAvailable = std::string::npos;
  std::string received;
  std::vector<std::pair<std::uint64_t, std::uint64_t>> deliveries;
  std::uint64_t progress = 0;

  void invokeRequestBodyContentLengthCallback(std::uint64_t* length) override {
    *length = requestBody.size();
  }
  void invokeRequestBodyCallback(std::uint64_t offset, std::uint8_t* buffer,
                                 std::uint64_t* bytesRead, std::uint64_t maxLength) override {
    const std::size_t end = std::min(requestBody.size(), requestBodyAvailable);
    *bytesRead = std::min<std::uint64_t>(maxLength, end - std::min<std::uint64_t>(end, offset));
    std::copy_n(requestBody.data() + offset, *bytesRead, buffer);
  }
  void invokeResponseBodyCallback(std::uint64_t offset, const std::uint8_t* data,
                                  std::uint64_t size) override {
    deliveries.emplace_back(offset, size);
    place(received, offset, data, size);
  }
  void invokeProgressCallback(std::uint64_t bytes) override { progress += bytes; }
  void retractProgress(std::uint64_t bytes) override { progress -= bytes; }
};

class FakeStatsAggregator : public KOVOStatsAggregator {
 public:
  std::uint64_t uploaded = 0;
  std::uint64_t downloaded = 0;

  void recordChunk(std::uint64_t bytes, bool upload, const Interrupt*) override {
    (upload ? uploaded : downloaded) += bytes;
  }
  std::uint64_t getUploadAverageSpeed() override { return 0; }
  std::uint64_t getDownloadAverageSpeed() override { return 0; }
  std::uint64_t getUploadTargetSpeed() override { return 0; }
  std::uint64_t getDownloadTargetSpeed() override { return 0; }
  kovo_error setTargetDataRates(std::uint64_t, std::uint64_t) override { return KOVO_ERROR_NONE; }
};

/** A transfer whose answers are fields, and which keeps what requests and sinks tell it. */
class FakeTransfer : public AbstractTransfer {
 public:
  /* Answers. */
  HeaderList parameters;
  HeaderList requestHeaders;
  HeaderList chunkHeaders;
  std::string contentType;
  std::string entityTag;
  std::string lastModified;
  KovoRange range;
  bool rangeGiven = false;
  bool chunkingAllowed = true;
  bool gzipWanted = false;
  bool validateChain = true;
  bool retryChunks = false;
  /* Blocks are kept, as by a download that writes chunks when they are complete. */
  bool keepBlocks = false;
  std::uint64_t downloadTargetSpeed = 0;
  std::uint32_t workerLimit = 16;
  std::uint32_t timeout = 30;
  std::pair<std::string, std::string> proxyCredentials;
  HttpGetCache* cache = nullptr;
  MimeSourceFactory* factory = nullptr;
  std::function<void(const HeaderList&)> onHeaders;

  /* Records. */
  std::string file;
  std::vector<std::pair<std::uint64_t, std::size_t>> directWrites;
  std::vector<std::pair<std::uint64_t, std::size_t>> blockWrites;
  std::vector<KovoRange> completedRanges;
  std::vector<KovoRange> discardedRanges;
  std::shared_ptr<KovoError> error;
  std::shared_ptr<KovoError> offeredError;
  std::shared_ptr<KovoHTTPError> offeredHttpError;
  std::vector<std::uint32_t> statusLines;
  std::vector<std::uint32_t> statuses;
  HeaderList responseHeaders;
  bool errorInHeaders = false;
  bool cancelled = false;
  FakeStatsAggregator stats;

  void addParameters(HeaderList& list) override {
    list.insert(list.end(), parameters.begin(), parameters.end());
  }
  std::string getUrl() const override { return {}; }
  void setError(std::shared_ptr<KovoError> failure) override {
    if (!error) {
      error = std::move(failure);
      cancelled = true;
    }
  }
  TransferContext* getContext() const override { return nullptr; }
  void applyProxyCredentials(Request& request) override {
    request.setProxyCredentials(proxyCredentials.first, proxyCredentials.second);
  }
  bool hasProxyCredentials() const override { return !proxyCredentials.first.empty(); }
  bool shouldValidateCertificateChain() override { return validateChain; }
  const HeaderList& getRequestHeaders() override { return requestHeaders; }
  void getChunkHeaders(const std::string&, std::int32_t, HeaderList& headers) override {
    headers.insert(headers.end(), chunkHeaders.begin(), chunkHeaders.end());
  }
  KOVOStatsAggregator& getStatsAggregator() override { return stats; }
  ProxyConfig& getProxyConfig() override { return _proxyConfig; }
  std::string getEntityTag() const override { return entityTag; }
  std::string getLastModified() const override { return lastModified; }
  HttpGetCache* getGetCache() override { return cache; }
  KovoRange getRange() const override { return range; }
  MimeSourceFactory* getMimeSourceFactory() override { return factory; }
  SqliteResumeCache* getResumeCache() override { return nullptr; }
  std::string getContentType() const override { return contentType; }
  bool isChunkingAllowed() const override { return chunkingAllowed; }
  std::uint32_t getTimeout() override { return timeout; }
  void setFilePath(const std::string&) override {}
  std::string getFilePath() const override { return {}; }
  kovo_chunk_type getChunkType() const override { return KOVO_CHUNK_TYPE_CHUNK; }
  std::uint32_t filterHttpStatus(std::uint32_t status) override {
    statuses.push_back(status);
    return status;
  }
  bool shouldRetryChunk(std::int32_t, std::shared_ptr<KovoError> failure,
                        std::shared_ptr<KovoHTTPError> httpError) override {
    offeredError = std::move(failure);
    offeredHttpError = std::move(httpError);
    return retryChunks;
  }
  void bytesTransferred(std::uint64_t) override {}
  void writeData(std::uint64_t offset, const std::uint8_t* data, std::size_t size,
                 const std::shared_ptr<PlatformFileOStream>& stream) override {
    if (!stream->isOpen()) {
      setError(makeKovoError(KOVO_ERROR_WRITE_STREAM_FAILURE, "closed"));
      return;
    }
    directWrites.emplace_back(offset, size);
    place(file, offset, data, size);
  }
  void writeBlock(std::uint64_t offset, ByteBlock& block, std::size_t size,
                  const std::shared_ptr<PlatformFileOStream>&) override {
    blockWrites.emplace_back(offset, size);
    place(file, offset, block.data(), size);
    if (keepBlocks) {
      block = ByteBlock();
    }
  }
  void rangeCompleted(const KovoRange& completed,
                      const std::shared_ptr<PlatformFileOStream>&) override {
    completedRanges.push_back(completed);
  }
  void rangeDiscarded(const KovoRange& discarded) override { discardedRanges.push_back(discarded); }
  void onResponseHeaders(Request&, const HeaderList& headers, bool errorRecorded) override {
    responseHeaders = headers;
    errorInHeaders = errorRecorded;
    if (onHeaders) {
      onHeaders(headers);
    }
  }
  void onStatusLine(Request&, const std::string&, std::uint32_t status,
                    const std::string&) override {
    statusLines.push_back(status);
  }
  bool hasRange() const override { return rangeGiven; }
  bool isReserved2Set() const override { return false; }
  bool isGzipWanted() const override { return gzipWanted; }
  std::uint64_t getUploadTargetSpeed() override { return 0; }
  std::uint64_t getDownloadTargetSpeed() override { return downloadTargetSpeed; }
  std::uint32_t getWorkerPoolUpperLimit() override { return workerLimit; }
  std::uint32_t getMaxActiveWorkProviders() const override { return 4; }
  std::shared_ptr<Mutex> getMutex() const override { return nullptr; }
  bool isReserved3Set() const override { return false; }
  bool isCancelledDueToError() const override { return error != nullptr; }
  void setRange(const KovoRange& given) override { range = given; }
  bool isCancellable() const override { return true; }
  bool handleResponseHeaders(bool) override { return false; }
  void processResponseHeader(Request&, const Header&) override {}

  Work* getNextWork() override { return nullptr; }
  bool onFinish(Work*) override { return false; }
  bool isFinished() const override { return false; }
  kovo_error cancel(bool) override {
    cancelled = true;
    return KOVO_ERROR_NONE;
  }
  bool pause(bool) override { return false; }
  bool isCancelled() const override { return cancelled; }
  bool isPausing() const override { return false; }
  void clearPausing() override {}
  std::uint32_t getAvailableWorkCount() const override { return 0; }
  std::uint32_t getToken() const override { return 1; }
  void setToken(std::uint32_t) override {}
  bool isSerial() const override { return false; }
  std::uint32_t getPriority() const override { return 0; }
  bool shouldRestartWhenDrained() const override { return false; }
  void monitor(std::uint32_t, const void*, std::size_t) override {}
  void restartOnceDrained() override {}
  std::size_t getActiveWorkCount() const override { return 1; }
  void onPauseDrained() override {}
  void abandon() override {}
  void deliverNotifications() override {}

 private:
  ProxyConfig _proxyConfig;
};

}  // namespace kovo::test
