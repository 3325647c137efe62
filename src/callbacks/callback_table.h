#pragma once

#include <kovo/kovo.h>

#include <atomic>

namespace kovo {

// The client's callbacks, one table per engine, all null at first. Entries are atomic because a
// registration may come while transfers run; each invocation reads the entry in force.
struct CallbackTable {
  std::atomic<kovo_response_body_callback> responseBody{nullptr};
  std::atomic<kovo_error_callback> error{nullptr};
  std::atomic<kovo_request_body_callback> requestBody{nullptr};
  std::atomic<kovo_request_body_content_length_callback> requestBodyContentLength{nullptr};
  std::atomic<kovo_completion_callback> completion{nullptr};
  std::atomic<kovo_status_line_callback> statusLine{nullptr};
  std::atomic<kovo_cancellation_callback> cancellation{nullptr};
  std::atomic<kovo_paused_callback> paused{nullptr};
  std::atomic<kovo_progress_callback> progress{nullptr};
  std::atomic<kovo_request_header_callback> requestHeader{nullptr};
  std::atomic<kovo_response_header_callback> responseHeader{nullptr};
  std::atomic<kovo_add_parameters_callback> addParameters{nullptr};
  std::atomic<kovo_monitor_callback> monitor{nullptr};
  std::atomic<kovo_ssl_certificate_policy_callback> sslCertificatePolicy{nullptr};
  std::atomic<kovo_set_timeout_callback> setTimeout{nullptr};
  std::atomic<kovo_add_chunk_header_callback> addChunkHeader{nullptr};
  std::atomic<kovo_chunk_error_retry_callback> chunkErrorRetry{nullptr};
  std::atomic<kovo_set_server_type_callback> setServerType{nullptr};
};

}  // namespace kovo
