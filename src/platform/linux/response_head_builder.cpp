#include "platform/linux/response_head_builder.h"

#include <strings.h>

#include <algorithm>

namespace kovo {

namespace {

// Real heads stay below 64 KiB; a server that never ends its head must not fill the memory. Each
// header counts its bookkeeping too, so that many empty ones are bounded as well.
constexpr std::size_t kMostHeadBytes = 1024UL * 1024;
constexpr std::size_t kBytesPerHeader = 64;

std::string_view trimmed(std::string_view text) {
  const auto isBlank = [](char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; };
  while (!text.empty() && isBlank(text.front())) {
    text.remove_prefix(1);
  }
  while (!text.empty() && isBlank(text.back())) {
    text.remove_suffix(1);
  }
  return text;
}

const char* versionName(std::string_view protocol) {
  if (protocol == "HTTP/1.0") {
    return "Http10";
  }
  if (protocol == "HTTP/1.1") {
    return "Http11";
  }
  return protocol == "HTTP/2" || protocol == "HTTP/2.0" ? "Http20" : "None";
}

}  // namespace

void ResponseHeadBuilder::reset() {
  _head = HttpResponseHead();
  _complete = false;
  _isOpen = false;
  _bytes = 0;
  _problem.clear();
}

bool ResponseHeadBuilder::addTrailer(std::string_view line) {
  _bytes += line.size() + kBytesPerHeader;
  return _bytes <= kMostHeadBytes || reject("The response's headers are too long");
}

bool ResponseHeadBuilder::add(std::string_view line) {
  if (!addTrailer(line)) {
    return false;
  }
  if (line.find('\0') != std::string_view::npos) {
    return reject("The response's headers hold a NUL byte");  // C strings would end there
  }
  // Within a head it is a header that looks like another one's beginning.
  if (!_isOpen && line.substr(0, 5) == "HTTP/") {
    addStatusLine(line);
    return true;
  }
  if (_complete) {
    return true;  // a trailer behind the body
  }
  // What libcurl takes for the end, whatever else stands in the line. Taken for anything else, the
  // next answer's headers would join this one's.
  const bool isEnd = line.empty() || line.front() == '\r' || line.front() == '\n';
  if (!trimmed(line).empty()) {
    if (isEnd) {
      return reject("The response's headers are malformed");
    }
    addHeader(line);
    return true;
  }
  if (!isEnd) {
    return true;  // a folded line without a text
  }
  _isOpen = false;
  _complete = _head.status >= 200 || _head.status == 101;
  return !_complete || checkFraming();
}

void ResponseHeadBuilder::addStatusLine(std::string_view line) {
  _head = HttpResponseHead();
  _complete = false;
  _isOpen = true;
  line = trimmed(line);
  const std::size_t firstBlank = line.find(' ');
  _head.version = versionName(line.substr(0, firstBlank));
  if (firstBlank == std::string_view::npos) {
    return;
  }
  line = trimmed(line.substr(firstBlank));
  std::size_t digits = 0;
  for (; digits < 3 && digits < line.size() && line[digits] >= '0' && line[digits] <= '9';
       ++digits) {
    _head.status = _head.status * 10 + static_cast<std::uint32_t>(line[digits] - '0');
  }
  _head.reason = trimmed(line.substr(digits));
}

void ResponseHeadBuilder::addHeader(std::string_view line) {
  if (line.front() == ' ' || line.front() == '\t') {
    // A folded line continues the header before it.
    if (!_head.headers.empty()) {
      std::string& value = _head.headers.back().second;
      value += ' ';
      value += trimmed(line);
    }
    return;
  }
  const std::size_t colon = line.find(':');
  const std::string_view name = line.substr(0, colon);
  // With a blank before its colon it is no header for libcurl: a length or an encoding in it would
  // not be what the body is read by.
  if (colon == std::string_view::npos || name.empty() || trimmed(name) != name) {
    return;
  }
  _head.headers.emplace_back(name, trimmed(line.substr(colon + 1)));
}

// libcurl takes the digits a Content-Length begins with, and the last of several; a body of another
// length than the server means would be taken for whole.
bool ResponseHeadBuilder::checkFraming() {
  const std::string* length = nullptr;
  for (const Header& header : _head.headers) {
    if (strcasecmp(header.first.c_str(), "Content-Length") != 0) {
      continue;
    }
    const std::string& value = header.second;
    const bool isNumber = !value.empty() && std::all_of(value.begin(), value.end(), [](char c) {
      return c >= '0' && c <= '9';
    });
    if (!isNumber || (length && *length != value)) {
      return reject("The response's Content-Length is invalid");
    }
    length = &value;
  }
  return true;
}

bool ResponseHeadBuilder::reject(const char* problem) {
  _problem = problem;
  return false;
}

const std::string* ResponseHeadBuilder::find(const char* name) const {
  for (const Header& header : _head.headers) {
    if (strcasecmp(header.first.c_str(), name) == 0) {
      return &header.second;
    }
  }
  return nullptr;
}

}  // namespace kovo
