#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "command.h"
#include "common_options.h"
#include "engine.h"
#include "failure.h"
#include "progress_line.h"
#include "quantity.h"
#include "transfer_runner.h"
#include "url_text.h"
#include "usage_error.h"

namespace kovo::cli {

namespace {

constexpr std::uint64_t kLargestPart = 50U << 20;

struct PutOptions {
  CommonOptions common;
  kovo_http_verb verb = KOVO_HTTP_PUT;
  std::uint64_t partSize = 8U << 20;

  OptionTable table() {
    std::vector<Option> rows = {
        {0, "s3", "", "upload in parts as S3 servers take them",
         [this](std::string_view) { common.transfer.serverType = KOVO_SERVER_TYPE_S3; }},
        {0, "sync", "", "upload in parts to a sync service",
         [this](std::string_view) { common.transfer.serverType = KOVO_SERVER_TYPE_SYNC_SERVICE; }},
        {'X', "request", "VERB", "PUT, POST or PATCH (default PUT)",
         [this](std::string_view text) {
           if (text == "PUT") {
             verb = KOVO_HTTP_PUT;
           } else if (text == "POST") {
             verb = KOVO_HTTP_POST;
           } else if (text == "PATCH") {
             verb = KOVO_HTTP_PATCH;
           } else {
             throw UsageError("--request: '" + std::string(text) + "' is not PUT, POST or PATCH");
           }
         }},
        {0, "part-size", "BYTES", "bytes per part with --s3 and --sync, up to 50M (default 8M)",
         [this](std::string_view text) {
           partSize = parseBytes(text, "--part-size");
           if (partSize < 1 || partSize > kLargestPart) {
             throw UsageError("--part-size: from 1 byte to 50M");
           }
         }},
    };
    std::vector<Option> shared = common.table();
    rows.insert(rows.end(), std::make_move_iterator(shared.begin()),
                std::make_move_iterator(shared.end()));
    return OptionTable(std::move(rows));
  }
};

std::uint64_t requireReadableFile(const std::string& path) {
  struct stat facts {};
  if (::stat(path.c_str(), &facts) != 0) {
    throw Failure(ExitCode::kFile, "cannot read " + printable(path) + ": " + std::strerror(errno));
  }
  if (!S_ISREG(facts.st_mode)) {
    throw Failure(ExitCode::kFile, printable(path) + " is not a regular file");
  }
  if (::access(path.c_str(), R_OK) != 0) {
    throw Failure(ExitCode::kFile, "cannot read " + printable(path) + ": " + std::strerror(errno));
  }
  return static_cast<std::uint64_t>(facts.st_size);
}

ExitCode runPut(const std::vector<std::string>& arguments) {
  PutOptions options;
  const std::vector<std::string> operands = options.table().parse(arguments);
  if (operands.size() != 2) throw UsageError("kovo put needs a file and a URL");
  const std::string& path = operands[0];
  const std::string& url = operands[1];
  requireHttpUrl(url);
  const std::uint64_t size = requireReadableFile(path);

  EventGate gate;
  SignalWatch signals(gate);
  Terminal terminal(options.common.progress);
  const auto started = ProgressLine::Clock::now();

  const bool inParts = options.common.transfer.serverType != KOVO_SERVER_TYPE_DEFAULT;
  EngineOptions engineOptions;
  engineOptions.connections = options.common.connections;
  engineOptions.chunkSize = options.partSize;
  engineOptions.uploadBytesPerSecond = options.common.bytesPerSecond;
  engineOptions.adaptive = options.common.adaptive;
  engineOptions.chunkUploads = inParts;
  engineOptions.progressInterval = progressIntervalFor(terminal);

  const std::string name = printable(path.substr(path.rfind('/') + 1));
  Transfer transfer(options.common.transfer, gate);
  Transfer::Status status;
  {
    const Engine engine(engineOptions);
    transfer.startUpload(engine.handle(), options.verb, url, path);
    TransferRunner runner(terminal, signals, gate);
    status = runner.follow(transfer, name, [] { return std::uint64_t{0}; });
  }
  const bool answered = status.httpStatus >= 200 && status.httpStatus <= 299;
  if (status.end != Transfer::End::kCompleted || !answered) {
    throwFailure(
        status, "cannot upload to", url, signals.stopSignal(),
        inParts ? "Run the same command again to go on with the parts that are missing." : "");
  }
  if (terminal.showsProgress()) {
    terminal.finish(
        summaryLine(name, size, ProgressLine::Clock::now() - started, terminal.usableColumns()));
  }
  return ExitCode::kOk;
}

std::string putHelp() {
  PutOptions options;
  return "Usage: kovo put FILE URL [options]\n\n"
         "Uploads FILE to URL: in one request, or in parts at once with --s3 or --sync. An\n"
         "interrupted upload in parts goes on when the same command is run again.\n\n" +
         options.table().help();
}

}  // namespace

Command putCommand() {
  return {"put", "upload a file to a URL", &runPut, &putHelp};
}

}  // namespace kovo::cli
