#pragma once

#include <kovo/kovo.h>

#include <cstdint>
#include <memory>
#include <string>

namespace kovo {

// The static text of a code, as kovoErrorString returns it.
const char* errorText(kovo_error code) noexcept;

// The static text of a status class, as kovoHTTPStatusString returns it.
const char* httpStatusText(std::int32_t status) noexcept;

// A failure on its way from a request through its transfer to the client's error callback.
// Immutable once shared.
struct KovoError {
  kovo_error code;
  std::string message;

  // The code's text, ". " and the message: what the client and the log get to read.
  std::string description() const;
};

// An HTTP-level failure of one request; httpStatus is 0 when there was no response.
struct KovoHTTPError {
  std::uint32_t httpStatus;
  std::string message;
  std::string details;
};

std::shared_ptr<KovoError> makeKovoError(kovo_error code, std::string message);
std::shared_ptr<KovoHTTPError> makeKovoHTTPError(std::uint32_t httpStatus, std::string message);

}  // namespace kovo
