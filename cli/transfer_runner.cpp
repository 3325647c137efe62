#include "transfer_runner.h"

#include <algorithm>
#include <chrono>

#include "failure.h"
#include "failure_class.h"
#include "progress_line.h"
#include "url_text.h"

namespace kovo::cli {

namespace {

using namespace std::chrono_literals;

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
      if (status.httpStatus == 407) return "The proxy wants credentials: put them into http_proxy.";
      if (status.httpStatus == 404 || status.httpStatus == 410) return "Check the URL.";
      if (status.httpStatus == 429 || status.httpStatus == 503) {
        return "The server is busy: try again later, or with fewer --connections.";
      }
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

}  // namespace

Transfer::Status TransferRunner::follow(Transfer& transfer, const std::string& name,
                                        const std::function<std::uint64_t()>& storedBefore) {
  ProgressLine line(name);
  std::uint64_t before = 0;
  bool begun = false;
  bool cancelling = false;
  bool cancellable = true;
  while (true) {
    Transfer::Status status = transfer.status();
    if (!begun && status.bytesTransferred != 0) {
      begun = true;
      const std::uint64_t stored = storedBefore();
      before = stored > status.bytesTransferred ? stored - status.bytesTransferred : 0;
    }
    if (status.end != Transfer::End::kRunning) return status;

    if (_signals.stopSignal() != 0 && !cancelling) {
      cancelling = true;
      cancellable = transfer.cancel();
      if (!cancellable) {
        _terminal.message(
            "kovo: the server has everything already; waiting for its answer "
            "(Ctrl-C again ends at once)");
      }
    }
    if (_terminal.showsProgress()) {
      std::string note;
      if (cancelling && cancellable) {
        note = "stopping";
      } else if (status.retriesWaiting != 0) {
        note = "waiting to retry";
      } else if (!begun) {
        note = status.httpStatus == 0 ? "connecting" : "waiting for data";
      }
      const ProgressState state{status.bytesTransferred + before, status.bytesTotal,
                                status.connections};
      _terminal.draw(line.text(state, ProgressLine::Clock::now(), _terminal.usableColumns(), note));
    }
    // Without a line to draw nothing but an event needs this thread.
    _gate.waitFor(_terminal.showsProgress() ? 100ms : 10000ms);
    _signals.takeResize();
  }
}

void throwFailure(const Transfer::Status& status, const std::string& doing, const std::string& url,
                  int stopSignal, const std::string& resumeHint) {
  const std::string where = doing + " " + displayUrl(url);
  if (status.end == Transfer::End::kCancelled && status.errorCode == 0) {
    throw Failure(
        stopSignal == 0 ? ExitCode::kInterrupted : static_cast<ExitCode>(128 + stopSignal),
        "interrupted: " + where, resumeHint);
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
    what += printable(status.errorMessage);
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
  throw Failure(kind == ExitCode::kOk ? ExitCode::kOther : kind, what, advice);
}

}  // namespace kovo::cli
