#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "platform/http_client.h"

namespace kovo {

// Gathers the lines of response heads as they arrive, interim responses included, until the final
// one is whole.
class ResponseHeadBuilder {
 public:
  // Forgets everything, for the next request.
  void reset();
  // One line with its line end. False when the response is not acceptable; problem() tells why.
  bool add(std::string_view line);
  // As above for a line behind the body, which counts but changes nothing.
  bool addTrailer(std::string_view line);

  // A whole head has arrived that is not an interim one.
  bool isComplete() const { return _complete; }
  // Nothing has come yet.
  bool isUntouched() const { return _bytes == 0; }
  const HttpResponseHead& head() const { return _head; }
  const std::string& problem() const { return _problem; }
  // The first header of that name, or null.
  const std::string* find(const char* name) const;

 private:
  void addStatusLine(std::string_view line);
  void addHeader(std::string_view line);
  bool checkFraming();
  bool reject(const char* problem);

  HttpResponseHead _head;
  bool _complete = false;
  bool _isOpen = false;  // between a status line and the empty line that ends its head
  std::size_t _bytes = 0;
  std::string _problem;
};

}  // namespace kovo
