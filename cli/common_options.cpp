#include "common_options.h"

#include <algorithm>
#include <cctype>

#include "quantity.h"
#include "secrets.h"
#include "usage_error.h"

namespace kovo::cli {

namespace {

// "Name: value" in its two halves. Refuses what would break the request open.
std::pair<std::string, std::string> parseHeader(std::string_view text) {
  const std::size_t colon = text.find(':');
  if (colon == std::string_view::npos || colon == 0) {
    throw UsageError("--header: what was given is not 'Name: value'");
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
  rememberSecretsOfHeader(name, value);
  return {std::string(name), std::string(value)};
}

ProgressMode parseProgress(std::string_view text) {
  if (text == "auto") return ProgressMode::kAuto;
  if (text == "always") return ProgressMode::kAlways;
  if (text == "never") return ProgressMode::kNever;
  throw UsageError("--progress: '" + std::string(text) + "' is not auto, always or never");
}

}  // namespace

std::vector<Option> CommonOptions::requestTable() {
  constexpr std::uint64_t kMostHeaders = 64;
  constexpr std::uint64_t kLongestTimeout = 86400;
  const auto addHeader = [this](const std::pair<std::string, std::string>& header) {
    if (transfer.headers.size() == kMostHeaders) throw UsageError("more than 64 headers");
    transfer.headers.push_back(header);
  };
  return {
      {'H', "header", "'NAME: VALUE'", "send this header with every request; may be repeated",
       [addHeader](std::string_view text) { addHeader(parseHeader(text)); }},
      {'A', "user-agent", "TEXT", "send TEXT as the name of the program",
       [addHeader](std::string_view text) {
         addHeader(parseHeader("User-Agent:" + std::string(text)));
       }},
      {0, "proxy-user", "USER:PASSWORD", "credentials for the proxy that http_proxy names",
       [this](std::string_view text) {
         const std::size_t colon = text.find(':');
         proxyUser = text.substr(0, colon);
         proxyPassword = colon == std::string_view::npos ? "" : text.substr(colon + 1);
         if (proxyUser.empty()) throw UsageError("--proxy-user: a user name is needed");
         rememberSecret(text);
         rememberSecret(proxyPassword);
       }},
      {0, "timeout", "SECONDS",
       "give a request up that makes no progress for so long\n(default 30)",
       [this](std::string_view text) {
         transfer.timeoutSeconds =
             static_cast<std::uint32_t>(parseNumber(text, "--timeout", 1, kLongestTimeout));
       }},
      {0, "insecure", "", "accept any certificate of the server",
       [this](std::string_view) { transfer.validateCertificates = false; }},
      {'q', "quiet", "", "show errors only",
       [this](std::string_view) {
         quiet = true;
         progress = ProgressMode::kNever;
       }},
  };
}

std::vector<Option> CommonOptions::transferTable() {
  std::vector<Option> rows = {
      {'n', "connections", "N", "requests that run at once, 1 to 64 (default 16)",
       [this](std::string_view text) {
         connections = static_cast<std::uint32_t>(parseNumber(text, "--connections", 1, 64));
       }},
      {0, "adaptive", "", "let the measured throughput choose the connections",
       [this](std::string_view) { adaptive = true; }},
      {0, "limit-rate", "BYTES", "most bytes per second, such as 5M (default no limit)",
       [this](std::string_view text) { bytesPerSecond = parseBytes(text, "--limit-rate"); }},
      {0, "retries", "N",
       "send a failed request again up to N times, after\ngrowing pauses (default 5)",
       [this](std::string_view text) {
         transfer.retries = static_cast<std::uint32_t>(parseNumber(text, "--retries", 0, 1000));
       }},
      {0, "priority", "N", "the engine's priority of the transfers (default 0)",
       [this](std::string_view text) {
         transfer.priority =
             static_cast<std::uint32_t>(parseNumber(text, "--priority", 0, UINT32_MAX));
       }},
      {0, "progress", "WHEN", "show progress: auto (on a terminal), always or never",
       [this](std::string_view text) { progress = parseProgress(text); }},
      {0, "json", "", "print one JSON object per event on standard output",
       [this](std::string_view) { json = true; }},
      {0, "trace", "FILE.html",
       "write a page that shows every request over time, the\nthroughput and the worker count",
       [this](std::string_view text) {
         if (text.empty()) throw UsageError("--trace: a file name is needed");
         traceFile = text;
       }},
  };
  std::vector<Option> requests = requestTable();
  rows.insert(rows.end(), std::make_move_iterator(requests.begin()),
              std::make_move_iterator(requests.end()));
  return rows;
}

EngineOptions CommonOptions::engineOptions(const Terminal& terminal) const {
  EngineOptions options;
  options.connections = connections;
  options.adaptive = adaptive;
  options.proxyUser = proxyUser;
  options.proxyPassword = proxyPassword;
  options.progressInterval = terminal.showsProgress() || json ? 100 : 2000;
  // A trace is drawn from what the workers report, so the more the better.
  if (!traceFile.empty()) options.progressInterval = 1;
  return options;
}

OptionTable joined(std::vector<Option> own, std::vector<Option> shared) {
  own.insert(own.end(), std::make_move_iterator(shared.begin()),
             std::make_move_iterator(shared.end()));
  return OptionTable(std::move(own));
}

}  // namespace kovo::cli
