#include "failure_report.h"

#include "failure_class.h"
#include "safe_text.h"
#include "url_text.h"

namespace kovo::cli {

namespace {

// The first line of what a server said, short enough to quote.
std::string quoted(const std::string& text) {
  constexpr std::size_t kLongest = 200;
  const std::size_t begin = text.find_first_not_of(" \t\r\n");
  if (begin == std::string::npos || text[begin] == '<') return {};  // a page made for browsers
  std::string line = text.substr(begin, text.find_first_of("\r\n", begin) - begin);
  if (line.size() > kLongest) line = line.substr(0, kLongest) + "...";
  return printable(line);
}

std::string adviceFor(ExitCode kind, const Transfer::Status& status) {
  switch (kind) {
    case ExitCode::kHttp:
      if (status.httpStatus == 401 || status.httpStatus == 403) {
        return "The server wants credentials: give them with --header 'Authorization: ...'.";
      }
      if (status.httpStatus == 407)
        return "The proxy wants credentials: give them with --proxy-user.";
      if (status.httpStatus == 404 || status.httpStatus == 410) return "Check the URL.";
      if (status.httpStatus == 429 || status.httpStatus == 503) {
        return "The server is busy: try again later, or with fewer --connections.";
      }
      if (status.httpStatus == 416) return "The resource is shorter than the range asked for.";
      return "";
    case ExitCode::kNetwork:
      return isUnreachable(status.errorMessage)
                 ? "Check the host name, the port and your network connection."
                 : "Check your network connection.";
    case ExitCode::kTls:
      return "Check the date of this machine and the host name; --insecure accepts any "
             "certificate.";
    case ExitCode::kTimeout:
      return "The server stopped answering; --timeout waits longer.";
    case ExitCode::kFile:
      return "Check the free space and the permissions of the folder.";
    default:
      return "";
  }
}

// The library's message without the names of its codes, which say nothing beside it.
std::string plain(const Transfer::Status& status) {
  std::string text = status.errorMessage;
  for (const std::string& prefix :
       {std::string(kovoErrorString(status.errorCode)) + ". ", std::string("Error: ")}) {
    if (text.size() > prefix.size() && text.compare(0, prefix.size(), prefix) == 0) {
      text.erase(0, prefix.size());
    }
  }
  return text;
}

}  // namespace

Failure describeFailure(const Transfer::Status& status, const std::string& doing,
                        const std::string& url, int stopSignal, const std::string& resumeHint) {
  const std::string where = doing + " " + displayUrl(url);
  if (status.failure) {
    std::string advice = status.failure->advice;
    if (!resumeHint.empty()) advice += (advice.empty() ? "" : "\n  ") + resumeHint;
    if (status.failure->code == ExitCode::kOk) return *status.failure;
    return {status.failure->code, where + ": " + status.failure->what(), advice};
  }
  if (status.end == Transfer::End::kCancelled && status.errorCode == 0) {
    return Failure(
        stopSignal == 0 ? ExitCode::kInterrupted : static_cast<ExitCode>(128 + stopSignal),
        "interrupted: " + displayUrl(url), resumeHint);
  }
  const ExitCode kind = classify(status.errorCode, status.httpStatus, status.errorMessage);
  std::string what = where + ": ";
  if (kind == ExitCode::kHttp) {
    what += "the server answered " + std::to_string(status.httpStatus);
    if (!status.reason.empty() && status.reason != "HTTP error") {
      what += " " + printable(status.reason);
    }
    const std::string words = quoted(status.serverText);
    if (!words.empty()) what += "\n  \"" + words + "\"";
  } else if (!status.errorMessage.empty()) {
    what += printable(plain(status));
  } else if (status.errorCode != 0) {
    what +=
        kind == ExitCode::kNetwork ? "the connection failed" : kovoErrorString(status.errorCode);
  } else {
    what += "the server answered " + std::to_string(status.httpStatus) + " " +
            printable(status.reason) + ", which is no answer to this request";
  }
  if (status.retriesMade != 0) {
    what += "\n  (after " + std::to_string(status.retriesMade) +
            (status.retriesMade == 1 ? " retry)" : " retries)");
  }
  std::string advice = adviceFor(kind, status);
  if (!resumeHint.empty()) advice += (advice.empty() ? "" : "\n  ") + resumeHint;
  return Failure(kind == ExitCode::kOk ? ExitCode::kOther : kind, what, advice);
}

}  // namespace kovo::cli
