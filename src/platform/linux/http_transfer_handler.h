#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace kovo {

// What a session tells the exchange it runs for, always from inside HttpSession::turn or resume.
// Answering false ends the transfer with an error.
class HttpTransferHandler {
 public:
  enum class BodyAnswer { Taken, NoRoom, Failed };

  // One line of a response head (or a trailer), with its line end.
  virtual bool onHeaderLine(std::string_view line) noexcept = 0;
  // NoRoom takes nothing; the piece comes again after HttpSession::resume.
  virtual BodyAnswer onBody(const std::uint8_t* data, std::size_t length) noexcept = 0;
  // Sets length to the bytes of the request's body put into buffer, 0 at its end.
  virtual bool onUpload(std::uint8_t* buffer, std::size_t capacity,
                        std::size_t& length) noexcept = 0;
  // The request's body is to be sent from its first byte again.
  virtual bool onRewind() noexcept = 0;

 protected:
  ~HttpTransferHandler() = default;
};

}  // namespace kovo
