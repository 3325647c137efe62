#include "core/kovo_error.h"

#include <utility>

namespace kovo {

const char* errorText(kovo_error code) noexcept {
  switch (code) {
    case KOVO_ERROR_NONE:
      return "Success";
    case KOVO_ERROR_UNKNOWN:
      return "Unknown Error";
    case KOVO_ERROR_INSTANCE_NOT_INITIALISED:
      return "KOVO Instance Not Initialised";
    case KOVO_ERROR_INSTANCE_RELEASED:
      return "KOVO Instance Released";
    case KOVO_ERROR_INVALID_PARAMETERS:
      return "Invalid Parameters";
    case KOVO_ERROR_CANCELLED:
      return "Cancelled";
    case KOVO_ERROR_NOT_IMPLEMENTED:
      return "Not Implemented";
    case KOVO_ERROR_DOWNLOAD_FAILED:
      return "Download Failed";
    case KOVO_ERROR_INVALID_HTTP_VERB:
      return "Invalid HTTP Verb";
    case KOVO_ERROR_UPLOAD_FAILED_TO_READ_FILE:
      return "Upload Failed to Read File";
    case KOVO_ERROR_WRITE_STREAM_FAILURE:
      return "Write Stream Failure";
    case KOVO_ERROR_READ_STREAM_FAILURE:
      return "Read Stream Failure";
    case KOVO_ERROR_INVALID_ENDPOINT:
      return "Invalid Endpoint";
    case KOVO_ERROR_INVALID_BYTE_RANGE:
      return "Invalid Byte Range Requested";
    case KOVO_ERROR_COULD_NOT_CREATE_REQUEST_STREAM:
      return "Could Not Create Request Stream";
    case KOVO_ERROR_NO_URL:
      return "No URL For Request";
    case KOVO_ERROR_INVALID_OUTPUT_FILE:
      return "Invalid Output File";
    case KOVO_ERROR_NO_REQUEST_BODY_CALLBACK:
      return "No Request Body Callback Registered";
    case KOVO_ERROR_INVALID_INPUT_FILE:
      return "Invalid Input File";
    case KOVO_ERROR_OPERATION_ERROR:
      return "KOVO Operation Error";
    case KOVO_ERROR_PROXY_ERROR:
      return "Proxy Error";
    case KOVO_ERROR_UNTRUSTED_SERVER_CERTIFICATE:
      return "Unknown (Untrusted) Server Certificate";
    case KOVO_ERROR_NO_COMPLETION_CALLBACK:
      return "No Completion Callback Registered";
    case KOVO_ERROR_NO_ERROR_CALLBACK:
      return "No Error Callback Registered";
    case KOVO_ERROR_NO_CANCELLATION_CALLBACK:
      return "No Cancellation Callback Registered";
    case KOVO_ERROR_NO_RESPONSE_BODY_CALLBACK:
      return "No Response Body Callback Registered";
    case KOVO_ERROR_NO_CONTENT_LENGTH_CALLBACK:
      return "No Content Length Callback Registered";
    case KOVO_ERROR_NOT_ENOUGH_DATA:
      return "Not Enough Data";
    case KOVO_ERROR_TOO_MUCH_DATA:
      return "Too much Data";
    case KOVO_ERROR_TIMEOUT:
      return "Timeout";
    case KOVO_ERROR_NETWORK_ERROR:
      return "Network Error";
    case KOVO_ERROR_INSUFFICIENT_DISK_SPACE:
      return "Insufficient disk space";
    case KOVO_ERROR_FILE_LOCKED:
      return "File was locked";
    case KOVO_ERROR_INVALID_FILE_NAME:
      return "Invalid file name";
    case KOVO_ERROR_FILE_NOT_FOUND:
      return "File not found";
    case KOVO_ERROR_PARENT_FOLDER_NOT_FOUND:
      return "Parent folder does not exist";
    case KOVO_ERROR_CHUNK_HTTP_ERROR:
      return "Chunk failed with HTTP error";
    case KOVO_ERROR_CHUNK_RETRY_FAILED:
      return "Chunk retry failed with error";
    case KOVO_ERROR_NO_STATUS_LINE_CALLBACK:
      return "No StatusLine Callback Registered";
    default:
      break;
  }
  // Compared as signed: platform statuses are positive, and so a negative value is no status.
  return static_cast<std::int32_t>(code) >= static_cast<std::int32_t>(KOVO_ERROR_PLATFORM_STATUS)
             ? "Platform Status"
             : "Unrecognised kovo_error";
}

const char* httpStatusText(std::int32_t status) noexcept {
  if (status >= 200 && status <= 299) return "HTTP Status 2xx (Success)";
  if (status >= 300 && status <= 399) return "HTTP Status 3xx (Redirection)";
  if (status >= 400 && status <= 499) return "HTTP Status 4xx (Client Error)";
  if (status >= 500 && status <= 599) return "HTTP Status 5xx (Server Error)";
  return "Unrecognised kovo_http_status";
}

std::string KovoError::description() const {
  return std::string(errorText(code)) + ". " + message;
}

std::shared_ptr<KovoError> makeKovoError(kovo_error code, std::string message) {
  return std::make_shared<KovoError>(KovoError{code, std::move(message)});
}

std::shared_ptr<KovoHTTPError> makeKovoHTTPError(std::uint32_t httpStatus, std::string message) {
  return std::make_shared<KovoHTTPError>(KovoHTTPError{httpStatus, std::move(message), {}});
}

}  // namespace kovo
