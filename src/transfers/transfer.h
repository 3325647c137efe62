#pragma once

#include <atomic>
#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "callbacks/client_callback_handler.h"
#include "core/abstract_transfer.h"
#include "core/kovo_engine.h"
#include "core/lock.h"
#include "core/work.h"
#include "http/mime_source_factory.h"
#include "platform/platform_file_stream.h"

namespace kovo {

// What every client operation has in common: flags and error, active work, filtered headers, the
// byte range, file writing, and the bridges to the engine and to the client's callbacks.
//
// Locks, in the order in which they may nest: _mainLock (the subclasses' state machines), then
// _stateLock, then the leaves (_activeLock, _notificationLock, the callback handler's own). What
// the queries of WorkProvider answer from is atomic or under a leaf, because they are asked while
// other threads hold _mainLock.
class Transfer : public AbstractTransfer {
 public:
  ~Transfer() override;

  // WorkProvider
  kovo_error cancel(bool dueToError) override;
  bool pause(bool restartWhenDrained) override;
  bool isCancelled() const override { return _cancelled; }
  bool isPausing() const override { return _pausing; }
  void clearPausing() override;
  std::uint32_t getToken() const override { return _token; }
  void setToken(std::uint32_t token) override { _token = token; }
  bool isSerial() const override { return false; }
  std::uint32_t getPriority() const override { return _priority; }
  bool shouldRestartWhenDrained() const override;
  void monitor(std::uint32_t kind, const void* data, std::size_t length) override;
  void restartOnceDrained() override;
  std::size_t getActiveWorkCount() const override;
  void abandon() override;
  void deliverNotifications() override;

  // AbstractTransfer
  void addParameters(HeaderList& parameters) override;
  std::string getUrl() const override { return _url; }
  void setError(std::shared_ptr<KovoError> error) override;
  TransferContext* getContext() const override { return _context; }
  void applyProxyCredentials(Request& request) override;
  bool hasProxyCredentials() const override;
  bool shouldValidateCertificateChain() override;
  const HeaderList& getRequestHeaders() override;
  void getChunkHeaders(const std::string& url, std::int32_t chunkNumber,
                       HeaderList& headers) override;
  KOVOStatsAggregator& getStatsAggregator() override;
  ProxyConfig& getProxyConfig() override;
  std::string getEntityTag() const override;
  std::string getLastModified() const override;
  HttpGetCache* getGetCache() override;
  KovoRange getRange() const override;
  MimeSourceFactory* getMimeSourceFactory() override { return _factoryInForce; }
  SqliteResumeCache* getResumeCache() override;
  std::string getContentType() const override;
  std::uint32_t getTimeout() override;
  void setFilePath(const std::string& path) override { _filePath = path; }
  std::string getFilePath() const override { return _filePath; }
  std::uint32_t filterHttpStatus(std::uint32_t status) override;
  bool shouldRetryChunk(std::int32_t chunkNumber, std::shared_ptr<KovoError> error,
                        std::shared_ptr<KovoHTTPError> httpError) override;
  void bytesTransferred(std::uint64_t count) override;
  void writeData(std::uint64_t offset, const std::uint8_t* data, std::size_t size,
                 const std::shared_ptr<PlatformFileOStream>& stream) override;
  void writeBlock(std::uint64_t offset, ByteBlock& block, std::size_t size,
                  const std::shared_ptr<PlatformFileOStream>& stream) override;
  void rangeCompleted(const KovoRange& range,
                      const std::shared_ptr<PlatformFileOStream>& stream) override;
  void rangeDiscarded(const KovoRange& range) override;
  void onResponseHeaders(Request& request, const HeaderList& headers, bool errorRecorded) override;
  void onStatusLine(Request& request, const std::string& httpVersion, std::uint32_t status,
                    const std::string& reason) override;
  bool hasRange() const override { return _hasRange; }
  bool isReserved2Set() const override;
  bool isGzipWanted() const override { return _gzipWanted && !_acceptEncodingGiven; }
  std::uint64_t getUploadTargetSpeed() override;
  std::uint64_t getDownloadTargetSpeed() override;
  std::uint32_t getWorkerPoolUpperLimit() override;
  std::uint32_t getMaxActiveWorkProviders() const override;
  std::shared_ptr<Mutex> getMutex() const override { return _mutex; }
  bool isReserved3Set() const override;
  bool isCancelledDueToError() const override;
  void setRange(const KovoRange& range) override;
  bool handleResponseHeaders(bool) override { return false; }
  void processResponseHeader(Request&, const Header&) override {}

 protected:
  Transfer(KovoEngine& engine, TransferContext* context, std::string url, kovo_chunking_mode mode,
           std::uint32_t priority, std::shared_ptr<ClientCallbackHandler> callbackHandler);

  // How a transfer may end; decided once, after which cancel and setError change nothing.
  enum class Outcome { Undecided, Completed, Failed, Cancelled };

  // Decides the outcome from what is recorded at this moment.
  Outcome decideOutcome();
  Outcome outcome() const { return _outcome; }

  std::shared_ptr<KovoError> getError() const;
  bool hasError() const { return _hasError; }
  // The engine's shutdown has ended this transfer.
  bool wasAbandoned() const { return _abandoned; }

  void addActiveWork(std::unique_ptr<Work> work);
  void removeActiveWork(Work* work);
  std::uint32_t getResponsesReceived() const;
  // Calls visit for each active work, under the list's lock.
  void forEachActiveWork(const std::function<void(const Work&)>& visit) const;

  // total is the size of the resource or body: fits the range to it and sets the progress total.
  void setExpectedLength(std::uint64_t total);
  bool isContentLengthKnown() const { return _contentLengthKnown; }
  void setContentLengthUnknown() { _contentLengthKnown = false; }
  void setValidators(const std::string* entityTag, const std::string* lastModified);
  void reportFileError(const std::string& message, FileErrorKind kind);
  void setMimeSourceFactory(std::unique_ptr<MimeSourceFactory> factory);
  // Takes out of a header list what the transfer itself acts on; notes what the client gave.
  HeaderList filterHeaders(const HeaderList& headers);
  // Latches a completed pause, which is reported unless a restart has been asked for.
  void pauseHasDrained();
  void reportPause() KOVO_REQUIRES(_stateLock);
  // Client callbacks are made by deliverNotifications, in the order in which they were added.
  void addNotification(std::function<void()> notification);

  KovoEngine& _engine;
  const std::shared_ptr<ClientCallbackHandler> _callbackHandler;
  mutable RecursiveLock _mainLock;
  mutable RecursiveLock _stateLock;
  std::atomic<std::int32_t> _chunkingMode;
  std::atomic<bool> _gzipWanted{false};

 private:
  TransferContext* const _context;
  const std::string _url;
  const std::uint32_t _priority;
  const std::shared_ptr<Mutex> _mutex;
  std::string _filePath;  // set before the transfer is submitted
  std::atomic<std::uint32_t> _token{0};

  // Written under _stateLock, read anywhere.
  std::atomic<bool> _cancelled{false};
  std::atomic<bool> _pausing{false};
  std::atomic<bool> _hasError{false};
  std::atomic<bool> _abandoned{false};
  std::atomic<Outcome> _outcome{Outcome::Undecided};
  std::atomic<bool> _hasRange{false};
  std::atomic<bool> _contentLengthKnown{false};
  std::atomic<bool> _acceptEncodingGiven{false};
  bool _restartWhenDrained KOVO_GUARDED_BY(_stateLock) = false;
  bool _drained KOVO_GUARDED_BY(_stateLock) = false;
  // A drained pause is still to be reported; withdrawn by a resume that comes first.
  bool _pauseReportDue KOVO_GUARDED_BY(_stateLock) = false;
  std::shared_ptr<KovoError> _error KOVO_GUARDED_BY(_stateLock);
  KovoRange _range KOVO_GUARDED_BY(_stateLock);
  std::string _contentType KOVO_GUARDED_BY(_stateLock);
  std::string _entityTag KOVO_GUARDED_BY(_stateLock);
  std::string _lastModified KOVO_GUARDED_BY(_stateLock);
  bool _requestHeadersCached KOVO_GUARDED_BY(_stateLock) = false;
  HeaderList _requestHeaders;  // constant once cached

  mutable RecursiveLock _activeLock;
  std::vector<std::unique_ptr<Work>> _activeWork KOVO_GUARDED_BY(_activeLock);
  std::uint32_t _responsesReceived KOVO_GUARDED_BY(_activeLock) = 0;

  RecursiveLock _notificationLock;
  std::deque<std::function<void()>> _notifications KOVO_GUARDED_BY(_notificationLock);
  bool _delivering KOVO_GUARDED_BY(_notificationLock) = false;

  std::unique_ptr<MimeSourceFactory> _mimeSourceFactory;
  std::atomic<MimeSourceFactory*> _factoryInForce{nullptr};
};

}  // namespace kovo
