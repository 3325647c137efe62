#include "failure_class.h"

#include <kovo/kovo.h>

#include <algorithm>
#include <initializer_list>

namespace kovo::cli {

namespace {

bool mentionsAny(std::string_view text, std::initializer_list<std::string_view> words) {
  return std::any_of(words.begin(), words.end(), [&](std::string_view word) {
    return text.find(word) != std::string_view::npos;
  });
}

}  // namespace

bool isUnreachable(std::string_view message) {
  return mentionsAny(message, {"Could not resolve", "Couldn't resolve", "Connection refused",
                               "Failed to connect", "Couldn't connect", "Could not connect"});
}

ExitCode classify(std::uint32_t code, std::uint32_t httpStatus, std::string_view message) {
  if (httpStatus >= 400) return ExitCode::kHttp;
  switch (code) {
    case KOVO_ERROR_TIMEOUT:
      return ExitCode::kTimeout;
    case KOVO_ERROR_UNTRUSTED_SERVER_CERTIFICATE:
      return ExitCode::kTls;
    case KOVO_ERROR_CHUNK_HTTP_ERROR:
      return ExitCode::kHttp;
    case KOVO_ERROR_DOWNLOAD_FAILED:
    case KOVO_ERROR_PROXY_ERROR:
    case KOVO_ERROR_NOT_ENOUGH_DATA:
    case KOVO_ERROR_TOO_MUCH_DATA:
    case KOVO_ERROR_NETWORK_ERROR:
      return ExitCode::kNetwork;
    case KOVO_ERROR_UPLOAD_FAILED_TO_READ_FILE:
    case KOVO_ERROR_WRITE_STREAM_FAILURE:
    case KOVO_ERROR_READ_STREAM_FAILURE:
    case KOVO_ERROR_INVALID_OUTPUT_FILE:
    case KOVO_ERROR_INVALID_INPUT_FILE:
    case KOVO_ERROR_FILE_MODIFIED:
    case KOVO_ERROR_INSUFFICIENT_DISK_SPACE:
    case KOVO_ERROR_FILE_LOCKED:
    case KOVO_ERROR_INVALID_FILE_NAME:
    case KOVO_ERROR_FILE_NOT_FOUND:
    case KOVO_ERROR_PARENT_FOLDER_NOT_FOUND:
    case KOVO_ERROR_PATH_TOO_LONG:
      return ExitCode::kFile;
    default:
      break;
  }
  if (code >= KOVO_ERROR_PLATFORM_STATUS) {
    // The platform reports every failure below HTTP with one number; its words tell them apart.
    return mentionsAny(message, {"SSL ", "SSL:", "SSL_", "TLS ", "certificate "})
               ? ExitCode::kTls
               : ExitCode::kNetwork;
  }
  return ExitCode::kOther;
}

}  // namespace kovo::cli
