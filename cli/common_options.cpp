#include "common_options.h"

#include <algorithm>
#include <cctype>

#include "quantity.h"
#include "usage_error.h"

namespace kovo::cli {

namespace {

// "Name: value" in its two halves. Refuses what would break the request open.
std::pair<std::string, std::string> parseHeader(std::string_view text) {
  const std::size_t colon = text.find(':');
  if (colon == std::string_view::npos || colon == 0) {
    throw UsageError("--header: '" + std::string(text.substr(0, 20)) + "...' is not 'Name: value'");
  }
  const std::string_view name = text.substr(0, colon);
  const bool isToken = std::all_of(name.begin(), name.end(), [](unsigned char c) {
    return std::isalnum(c) != 0 ||
           std::string_view("!#$%&'*+-.^_`|~").find(static_cast<char>(c)) != std::string_view::npos;
  });
  if (!isToken) throw UsageError("--header: the name holds characters no header may have");
  std::string_view value = text.substr(colon + 1);
  const auto isBlank = [](char c) { return c == ' ' || c == '\t'; };
  while (!value.empty() && isBlank(value.front())) value.remove_prefix(1);
  while (!value.empty() && isBlank(value.back())) value.remove_suffix(1);
  if (std::any_of(value.begin(), value.end(),
                  [](unsigned char c) { return (c < 0x20 && c != '\t') || c == 0x7F; })) {
    throw UsageError("--header " + std::string(name) + ": the value holds a control character");
  }
  if (name.size() >= sizeof(kovo_header::name) || value.size() >= sizeof(kovo_header::value)) {
    throw UsageError("--header " + std::string(name.substr(0, 40)) + ": too long");
  }
  return {std::string(name), std::string(value)};
}

ProgressMode parseProgress(std::string_view text) {
  if (text == "auto") return ProgressMode::kAuto;
  if (text == "always") return ProgressMode::kAlways;
  if (text == "never") return ProgressMode::kNever;
  throw UsageError("--progress: '" + std::string(text) + "' is not auto, always or never");
}

}  // namespace

std::vector<Option> CommonOptions::table() {
  constexpr std::uint64_t kMostHeaders = 64;
  constexpr std::uint64_t kLongestTimeout = 86400;
  return {
      {'n', "connections", "N", "requests that run at once, 1 to 64 (default 16)",
       [this](std::string_view text) {
         connections = static_cast<std::uint32_t>(parseNumber(text, "--connections", 1, 64));
       }},
      {0, "adaptive", "", "let the measured throughput choose the connections",
       [this](std::string_view) { adaptive = true; }},
      {0, "limit-rate", "BYTES", "most bytes per second, such as 5M (default no limit)",
       [this](std::string_view text) { bytesPerSecond = parseBytes(text, "--limit-rate"); }},
      {'H', "header", "'NAME: VALUE'", "send this header with every request; may be repeated",
       [this](std::string_view text) {
         if (transfer.headers.size() == kMostHeaders) throw UsageError("more than 64 headers");
         transfer.headers.push_back(parseHeader(text));
       }},
      {0, "timeout", "SECONDS",
       "give a request up that makes no progress for so long\n(default 30)",
       [this](std::string_view text) {
         transfer.timeoutSeconds =
             static_cast<std::uint32_t>(parseNumber(text, "--timeout", 1, kLongestTimeout));
       }},
      {0, "retries", "N",
       "send a failed request again up to N times, after growing\npauses (default 5)",
       [this](std::string_view text) {
         transfer.retries = static_cast<std::uint32_t>(parseNumber(text, "--retries", 0, 1000));
       }},
      {0, "insecure", "", "accept any certificate of the server",
       [this](std::string_view) { transfer.validateCertificates = false; }},
      {0, "progress", "WHEN", "show progress: auto (on a terminal), always or never",
       [this](std::string_view text) { progress = parseProgress(text); }},
      {'q', "quiet", "", "show errors only",
       [this](std::string_view) {
         quiet = true;
         progress = ProgressMode::kNever;
       }},
  };
}

std::uint32_t progressIntervalFor(const Terminal& terminal) {
  return terminal.showsProgress() ? 100 : 2000;
}

}  // namespace kovo::cli
