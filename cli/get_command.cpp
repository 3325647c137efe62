#include <sys/stat.h>

#include <algorithm>
#include <cctype>

#include "command.h"
#include "common_options.h"
#include "download_target.h"
#include "engine.h"
#include "failure.h"
#include "progress_line.h"
#include "quantity.h"
#include "sha256.h"
#include "transfer_runner.h"
#include "url_text.h"
#include "usage_error.h"

namespace kovo::cli {

namespace {

constexpr std::uint64_t kLargestChunk = 50U << 20;

struct GetOptions {
  CommonOptions common;
  std::string output;
  std::uint64_t chunkSize = 2U << 20;
  std::string sha256;
  bool rangeCache = false;
  bool keepPartial = true;
  bool force = false;

  OptionTable table() {
    std::vector<Option> rows = {
        {'o', "output", "FILE",
         "write to FILE, or into the folder FILE (default: the last part\n"
         "of the URL's path)",
         [this](std::string_view text) { output = text; }},
        {'f', "force", "", "replace an existing file", [this](std::string_view) { force = true; }},
        {0, "sha256", "HEX", "compare with this checksum before the file gets its name",
         [this](std::string_view text) {
           sha256 = text;
           std::transform(sha256.begin(), sha256.end(), sha256.begin(),
                          [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
           if (!isSha256Text(sha256)) throw UsageError("--sha256: 64 hex digits are needed");
         }},
        {'c', "continue", "", "go on with a partial file (default)",
         [this](std::string_view) { keepPartial = true; }},
        {0, "no-continue", "", "start afresh instead of resuming",
         [this](std::string_view) { keepPartial = false; }},
        {0, "chunk-size", "BYTES", "bytes per request, up to 50M (default 2M)",
         [this](std::string_view text) {
           chunkSize = parseBytes(text, "--chunk-size");
           if (chunkSize < 1 || chunkSize > kLargestChunk) {
             throw UsageError("--chunk-size: from 1 byte to 50M");
           }
         }},
        {0, "cache", "", "keep what is fetched in the cache of ranges, and use it",
         [this](std::string_view) { rangeCache = true; }},
        {0, "no-cache", "", "leave that cache alone (default)",
         [this](std::string_view) { rangeCache = false; }},
    };
    std::vector<Option> shared = common.table();
    rows.insert(rows.end(), std::make_move_iterator(shared.begin()),
                std::make_move_iterator(shared.end()));
    return OptionTable(std::move(rows));
  }
};

std::string outputPath(const std::string& output, const std::string& url) {
  if (output.empty()) return fileNameFromUrl(url);
  if (output == "-") throw UsageError("-o -: writing to standard output is not supported");
  struct stat facts {};
  const bool isFolder =
      output.back() == '/' || (::stat(output.c_str(), &facts) == 0 && S_ISDIR(facts.st_mode));
  if (!isFolder) return output;
  return output + (output.back() == '/' ? "" : "/") + fileNameFromUrl(url);
}

std::string resumeHint(DownloadTarget& target) {
  if (!target.settleFailed()) return {};
  return "What has come is kept in " + printable(target.partialPath()) +
         "; run the same command again to go on.";
}

void verifyChecksum(const GetOptions& options, const DownloadTarget& target, Terminal& terminal,
                    const SignalWatch& signals) {
  if (terminal.showsProgress()) {
    terminal.draw(fitted("checking the SHA-256 of " + printable(target.finalPath()),
                         terminal.usableColumns()));
  }
  const std::string found =
      sha256OfFile(target.partialPath(), [&] { return signals.stopSignal() != 0; });
  if (found.empty()) {
    throw Failure(static_cast<ExitCode>(128 + signals.stopSignal()),
                  "interrupted while checking the SHA-256",
                  "The complete bytes are in " + printable(target.partialPath()) + ".");
  }
  if (found == options.sha256) return;
  throw Failure(ExitCode::kChecksum,
                "the SHA-256 of " + printable(target.finalPath()) + " differs\n  expected " +
                    options.sha256 + "\n  received " + found,
                "The bytes stay in " + printable(target.partialPath()) +
                    " for inspection; running the command again fetches them anew.");
}

ExitCode runGet(const std::vector<std::string>& arguments) {
  GetOptions options;
  const std::vector<std::string> operands = options.table().parse(arguments);
  if (operands.size() != 1) {
    throw UsageError(operands.empty() ? "kovo get needs a URL" : "kovo get takes one URL");
  }
  const std::string& url = operands[0];
  requireHttpUrl(url);

  DownloadTarget target(
      outputPath(options.output, url),
      options.force ? DownloadTarget::Existing::kReplace : DownloadTarget::Existing::kRefuse,
      options.keepPartial);
  EventGate gate;
  SignalWatch signals(gate);
  Terminal terminal(options.common.progress);
  const auto started = ProgressLine::Clock::now();

  EngineOptions engineOptions;
  engineOptions.connections = options.common.connections;
  engineOptions.chunkSize = options.chunkSize;
  engineOptions.downloadBytesPerSecond = options.common.bytesPerSecond;
  engineOptions.adaptive = options.common.adaptive;
  engineOptions.rangeCache = options.rangeCache;
  engineOptions.progressInterval = progressIntervalFor(terminal);

  const std::string name = printable(target.finalPath().substr(target.finalPath().rfind('/') + 1));
  options.common.transfer.foundPartial = target.foundPartial();
  Transfer transfer(options.common.transfer, gate);
  Transfer::Status status;
  bool completed = false;
  std::uint64_t size = 0;
  {
    const Engine engine(engineOptions);
    const Transfer::CompletionHold hold(transfer);  // ends before the engine does
    transfer.startDownload(engine.handle(), url, target.partialPath());
    TransferRunner runner(terminal, signals, gate);
    status = runner.follow(transfer, name, [&] {
      return target.foundPartial() ? target.storedBytes() : std::uint64_t{0};
    });
    completed = status.end == Transfer::End::kCompleted && status.httpStatus >= 200 &&
                status.httpStatus <= 299;
    // With the record to resume from still in place, so that being killed here costs nothing.
    if (completed) {
      if (!options.sha256.empty()) verifyChecksum(options, target, terminal, signals);
      size = target.commit();
    }
  }
  if (!completed) {
    throwFailure(status, "cannot download", url, signals.stopSignal(), resumeHint(target));
  }

  if (terminal.showsProgress()) {
    terminal.finish(summaryLine(name, size, ProgressLine::Clock::now() - started,
                                terminal.usableColumns(),
                                options.sha256.empty() ? "" : "SHA-256 verified"));
  }
  return ExitCode::kOk;
}

std::string getHelp() {
  GetOptions options;
  return "Usage: kovo get URL [options]\n\n"
         "Downloads URL with several requests at once. The bytes gather in FILE._kstmp, which\n"
         "becomes FILE when they are complete; running an interrupted command again resumes.\n\n" +
         options.table().help();
}

}  // namespace

Command getCommand() {
  return {"get", "download a URL into a file", &runGet, &getHelp};
}

}  // namespace kovo::cli
