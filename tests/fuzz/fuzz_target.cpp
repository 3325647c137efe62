#include "fuzz/fuzz_target.h"

#include <cstdio>
#include <cstdlib>

#include "core/assertion.h"
#include "log/kovo_log.h"

namespace kovo::test {
namespace {

constexpr std::size_t kMostLogged = 1024UL * 1024;

std::string logText;

void keepLine(std::uint32_t, const char* message, const char*, const char*, std::uint32_t, void*) {
  if (logText.size() < kMostLogged) {
    logText.append(message).append("\n");
  }
}

}  // namespace

std::uint8_t FuzzInput::byte() {
  return isEmpty() ? 0 : static_cast<std::uint8_t>(_bytes[_position++]);
}

std::string FuzzInput::line() {
  const std::size_t end = _bytes.find('\n', _position);
  if (end == std::string::npos) {
    return rest();
  }
  const std::string text = _bytes.substr(_position, end - _position);
  _position = end + 1;
  return text;
}

std::uint64_t FuzzInput::number() {
  std::uint64_t value = 0;
  for (const char digit : line()) {
    value =
        digit >= '0' && digit <= '9' ? value * 10 + static_cast<std::uint64_t>(digit - '0') : value;
  }
  return value;
}

std::string FuzzInput::rest() {
  const std::string text = _bytes.substr(_position);
  _position = _bytes.size();
  return text;
}

void require(bool condition, const char* text) {
  if (!condition) {
    std::fprintf(stderr, "does not hold: %s\n", text);
    std::abort();
  }
}

const std::string& logged() {
  return logText;
}

bool contains(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

bool holdsLineBreak(const Header& header) {
  return (header.first + header.second).find_first_of(std::string("\r\n\0", 3)) !=
         std::string::npos;
}

void runFuzzInput(FuzzFunction function, const std::uint8_t* data, std::size_t size) {
  setAssertionHandler([](const char*, const char*, int) {});
  setLogLevel(KOVO_LOG_TRACE);
  registerLoggingCallback(&keepLine, nullptr);
  logText.clear();
  FuzzInput input(data, size);
  function(input);
  registerLoggingCallback(nullptr, nullptr);
}

}  // namespace kovo::test
