#pragma once

#include <curl/curl.h>

#include <boost/noncopyable.hpp>
#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "platform/http_client.h"
#include "platform/linux/http_hop.h"
#include "platform/linux/http_session.h"
#include "platform/linux/http_session_pool.h"
#include "platform/linux/http_transfer_handler.h"
#include "platform/linux/response_head_builder.h"

namespace kovo {

// An exchange over a pooled session, which it gives back as soon as the response is whole. All
// fields belong to the thread that pulls.
class CurlExchange final : public HttpExchange, HttpTransferHandler, boost::noncopyable {
 public:
  CurlExchange(HttpSessionPool& pool, Interrupt interrupt);
  ~CurlExchange() override;

  const HttpResponseHead& send(const HttpRequestMessage& message) override;
  std::size_t read(std::uint8_t* buffer, std::size_t count, std::size_t room) override;

 private:
  struct FreeHeaders {
    void operator()(curl_slist* list) const { curl_slist_free_all(list); }
  };

  bool onHeaderLine(std::string_view line) noexcept override;
  BodyAnswer onBody(const std::uint8_t* data, std::size_t length) noexcept override;
  bool onUpload(std::uint8_t* buffer, std::size_t capacity, std::size_t& length) noexcept override;
  bool onRewind() noexcept override;

  void begin(bool freshConnection);
  // Until the final response's head has arrived; throws when there is none.
  void awaitHead();
  bool hasHead() const;
  bool isBodySent() const;
  bool shouldUseProxyDigest() const;
  bool diedUnused() const;
  // Runs the transfer until it ends or condition holds.
  template <typename Condition>
  void runUntil(Condition condition);
  // Reads what is left of a response nobody wants, so that its connection can be kept, unless that
  // takes long.
  void drain();
  // Once the transfer has ended: keeps its failure for read, and gives the session back.
  void settle();
  std::string failureText(CURLcode code) const;
  std::size_t handOutOverflow(std::uint8_t* buffer, std::size_t count);
  void setAside(std::uint8_t* ahead, std::size_t length);
  void giveBackSession() noexcept;

  HttpSessionPool& _pool;
  const Interrupt _interrupt;
  std::unique_ptr<HttpSession> _session;
  std::unique_ptr<HttpHop> _hop;
  std::unique_ptr<curl_slist, FreeHeaders> _headers;
  std::chrono::milliseconds _limit{0};
  ResponseHeadBuilder _head;
  bool _sendReturned = false;

  std::uint64_t _uploaded = 0;  // bytes of the request's body taken so far
  bool _uploadFailed = false;

  std::uint64_t _arrivals = 0;  // header lines and pieces of body
  bool _bodyBegan = false;
  bool _discards = false;
  std::size_t _discarded = 0;
  // Where the running read wants its bytes.
  std::uint8_t* _target = nullptr;
  std::size_t _room = 0;
  std::size_t _filled = 0;
  // Bytes placed in the caller's space ahead of the position it has read to.
  std::uint8_t* _ahead = nullptr;
  std::size_t _aheadLength = 0;
  // Bytes that came when there was no room for them.
  std::vector<std::uint8_t> _overflow;
  std::size_t _overflowRead = 0;

  std::string _failure;  // of the body, told once its bytes are handed out
};

}  // namespace kovo
