#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <optional>

#include "command.h"
#include "common_options.h"
#include "failure.h"
#include "paced_file.h"
#include "quantity.h"
#include "safe_text.h"
#include "secrets.h"
#include "session.h"
#include "url_text.h"
#include "usage_error.h"

namespace kovo::cli {

namespace {

constexpr std::uint64_t kLargestPart = 50U << 20;

struct PutOptions {
  CommonOptions common;
  kovo_http_verb verb = KOVO_HTTP_PUT;
  std::uint64_t partSize = 8U << 20;

  bool inParts() const { return common.transfer.serverType != KOVO_SERVER_TYPE_DEFAULT; }
  // The engine counts the body of a request once, before it is sent: it cannot hold back one.
  bool pacesItself() const { return common.bytesPerSecond != 0 && !inParts(); }

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
        {0, "part-size", "BYTES", "bytes per part with --s3 and --sync, up to 50M\n(default 8M)",
         [this](std::string_view text) {
           partSize = parseBytes(text, "--part-size");
           if (partSize < 1 || partSize > kLargestPart) {
             throw UsageError("--part-size: from 1 byte to 50M");
           }
         }},
    };
    return joined(std::move(rows), common.transferTable());
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

class PutJob : public Job {
 public:
  PutJob(std::uint32_t id, const PutOptions& options, const std::string& path,
         const std::string& url, std::uint64_t size, Session& session)
      : _options(options), _path(path), _url(url), _size(size) {
    TransferHooks hooks;
    if (options.pacesItself()) {
      _paced.emplace(path, options.common.bytesPerSecond);
      hooks.file = &*_paced;
    }
    _transfer.emplace(id, options.common.transfer, hooks, session.gate(), session.observer());
  }

  Transfer& transfer() override { return *_transfer; }
  void start(kovo_instance instance) override {
    if (_paced) {
      _transfer->startUploadOfBody(instance, _options.verb, _url);
    } else {
      _transfer->startUpload(instance, _options.verb, _url, _path);
    }
  }
  std::string label() const override { return printable(_path.substr(_path.rfind('/') + 1)); }
  const std::string& url() const override { return _url; }
  std::string doing() const override { return "cannot upload to"; }
  std::string file() const override { return printable(_path); }
  std::uint64_t size() const override { return _size; }
  std::string settleFailed() override {
    return _options.inParts()
               ? "Run the same command again to go on with the parts that are missing."
               : "";
  }

 private:
  const PutOptions& _options;
  const std::string _path;
  const std::string _url;
  const std::uint64_t _size;
  std::optional<PacedFile> _paced;
  std::optional<Transfer> _transfer;
};

ExitCode runPut(const std::vector<std::string>& arguments) {
  PutOptions options;
  const std::vector<std::string> operands = options.table().parse(arguments);
  if (operands.size() != 2) throw UsageError("kovo put needs a file and a URL");
  const std::string& path = operands[0];
  const std::string& url = operands[1];
  rememberSecretsOfUrl(url);
  requireHttpUrl(url);
  const std::uint64_t size = requireReadableFile(path);

  Session session(options.common);
  EngineOptions engineOptions = options.common.engineOptions(session.terminal());
  engineOptions.chunkSize = options.partSize;
  engineOptions.uploadBytesPerSecond = options.pacesItself() ? 0 : options.common.bytesPerSecond;
  engineOptions.chunkUploads = options.inParts();
  return session.run(engineOptions, 1, 1, [&](std::uint32_t id) {
    return std::make_unique<PutJob>(id, options, path, url, size, session);
  });
}

std::string putHelp() {
  PutOptions options;
  return "Usage: kovo put FILE URL [options]\n\n"
         "Uploads FILE to URL: in one request, or in parts at once with --s3 or --sync.\n"
         "An interrupted upload in parts goes on when the same command is run again.\n\n" +
         options.table().help();
}

}  // namespace

Command putCommand() {
  return {"put", "upload a file to a URL", &runPut, &putHelp};
}

}  // namespace kovo::cli
