#pragma once

#include <boost/noncopyable.hpp>
#include <cstdint>
#include <memory>
#include <string>
#include <thread>

#include "callbacks/callback_table.h"
#include "core/header_list.h"
#include "core/kovo_error.h"
#include "core/lock.h"

namespace kovo {

class Clock;
class KovoEngine;

// The only path to client code; one per transfer, shared by everything that serves it. Decides
// whether a callback may still be delivered, delivers each final callback at most once, asks the
// once-per-transfer questions once and remembers the answers, limits the rate of progress reports,
// and keeps the exceptions of client code out of the library. Client code never runs under _lock.
class ClientCallbackHandler : boost::noncopyable {
 public:
  // engine and callbacks outlive the handler. clock may be null (the system's clock).
  ClientCallbackHandler(KovoEngine* engine, CallbackTable* callbacks, void* context,
                        Clock* clock = nullptr);
  virtual ~ClientCallbackHandler();

  // True for the first cancellation, and for a client's cancel that replaces one due to error.
  virtual bool setCancelled(bool dueToError);
  virtual void setTotalBytes(std::uint64_t total);
  virtual const HeaderList& invokeAddParametersCallback();
  virtual std::uint32_t invokeSetTimeoutCallback();
  virtual const HeaderList& invokeRequestHeadersCallback();
  virtual std::uint32_t invokeSetServerTypeCallback();
  virtual bool invokeShouldValidateCertificateChain(const std::string& url);
  virtual void invokeResponseBodyCallback(std::uint64_t offset, const std::uint8_t* data,
                                          std::uint64_t size);
  virtual void invokeStatusLineCallback(const char* httpVersion, std::uint32_t statusCode,
                                        const char* reasonPhrase);
  virtual void invokeChunkHeadersCallback(std::uint32_t chunkType, const char* url,
                                          std::uint32_t chunkNumber, HeaderList& out);
  virtual bool invokeChunkErrorRetryCallback(std::uint32_t chunkType, std::uint32_t chunkNumber,
                                             std::shared_ptr<KovoError> error,
                                             const std::string& message, std::uint32_t httpStatus);
  virtual void invokeRequestBodyContentLengthCallback(std::uint64_t* length);
  virtual void invokeRequestBodyCallback(std::uint64_t offset, std::uint8_t* buffer,
                                         std::uint64_t* bytesRead, std::uint64_t maxLength);
  virtual void invokeProgressCallback(std::uint64_t bytes);
  virtual void invokePausedCallback();
  virtual void invokeErrorCallback(std::shared_ptr<KovoError> error);
  virtual void invokeMonitorCallback(std::uint32_t type, const void* data, std::uint64_t length);
  virtual void invokeCompletionCallback();
  virtual void invokeCancellationCallback();
  // headers must not be empty. errorRecorded: the response carries an error.
  virtual void invokeResponseHeaderCallback(const HeaderList& headers, bool errorRecorded);
  virtual bool wasCancelledDueToError();

  // Takes back progress that was reported for bytes which will be moved again.
  virtual void retractProgress(std::uint64_t bytes);

 private:
  enum class Question : std::uint32_t { NotAsked = 0, Answered = 1, BeingAsked = 2 };
  struct OnceState {
    Question state = Question::NotAsked;
    std::thread::id asker;  // while being asked
  };

  bool gateOpen() const KOVO_REQUIRES(_lock) { return !_cancelled && !_finalDelivered; }
  // The entry in force while the gate is open, else null.
  template <typename Callback>
  Callback takeIfOpen(const std::atomic<Callback>& slot);
  // The entry in force for the first final delivery, else null.
  template <typename Callback>
  Callback takeFinal(const std::atomic<Callback>& slot);
  // Asks (on this thread, without the lock) unless the question is answered, or waits for the
  // thread that asks. True when the answer may be read: false leaves the caller with its default.
  template <typename Callback, typename Ask>
  bool askOnce(OnceState ClientCallbackHandler::*question, const std::atomic<Callback>& slot,
               Ask&& ask);
  void markAnswered(OnceState ClientCallbackHandler::*question);
  // Appends the records that the client fills in; fill calls the client's function.
  template <typename Fill>
  void collectRecords(std::uint32_t capacity, HeaderList& out, Fill&& fill);
  kovo_instance instance() const;

  KovoEngine* const _engine;
  CallbackTable* const _callbacks;
  void* const _context;
  Clock* const _clock;

  RecursiveLock _lock;
  ConditionVariable _answered;
  bool _cancelled KOVO_GUARDED_BY(_lock) = false;
  bool _cancelledDueToError KOVO_GUARDED_BY(_lock) = false;
  bool _finalDelivered KOVO_GUARDED_BY(_lock) = false;
  bool _headersDelivered KOVO_GUARDED_BY(_lock) = false;
  bool _lastHeadersForError KOVO_GUARDED_BY(_lock) = false;
  bool _statusLineDelivered KOVO_GUARDED_BY(_lock) = false;
  OnceState _requestHeadersState KOVO_GUARDED_BY(_lock);
  OnceState _parametersState KOVO_GUARDED_BY(_lock);
  OnceState _certificatePolicyState KOVO_GUARDED_BY(_lock);
  OnceState _serverTypeState KOVO_GUARDED_BY(_lock);
  OnceState _timeoutState KOVO_GUARDED_BY(_lock);
  std::uint64_t _progressBytes KOVO_GUARDED_BY(_lock) = 0;
  std::uint64_t _totalBytes KOVO_GUARDED_BY(_lock) = 0;
  std::int64_t _nextProgressTime KOVO_GUARDED_BY(_lock) = 0;
  // Written once, before their question counts as answered; constant afterwards.
  HeaderList _requestHeaders;
  HeaderList _parameters;
  std::uint32_t _serverType = 0;
  std::uint32_t _timeout = 0;
  bool _validateCertificateChain = true;
};

}  // namespace kovo
