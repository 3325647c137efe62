#include "get_job.h"

#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <optional>
#include <system_error>
#include <utility>

#include "download_target.h"
#include "file_naming.h"
#include "partial_registry.h"
#include "safe_text.h"
#include "sha256.h"
#include "url_text.h"

namespace kovo::cli {

namespace {

std::string baseName(const std::string& path) {
  return path.substr(path.rfind('/') + 1);
}

std::string outputPath(const GetOptions& options, const std::string& url) {
  if (!options.folder.empty()) {
    std::error_code error;
    std::filesystem::create_directories(options.folder, error);
    if (error) {
      throw Failure(ExitCode::kFile, "cannot create the folder " + printable(options.folder) +
                                         ": " + error.message());
    }
    return (std::filesystem::path(options.folder) / fileNameFromUrl(url)).string();
  }
  if (options.output.empty()) return fileNameFromUrl(url);
  struct stat facts {};
  const bool isFolder = options.output.back() == '/' ||
                        (::stat(options.output.c_str(), &facts) == 0 && S_ISDIR(facts.st_mode));
  if (!isFolder) return options.output;
  return options.output + (options.output.back() == '/' ? "" : "/") + fileNameFromUrl(url);
}

const std::string& claimed(const GetSession& session, const std::string& path) {
  session.claims.claim(path);
  return path;
}

DownloadTarget::Existing existingOf(const GetOptions& options) {
  if (options.force) return DownloadTarget::Existing::kReplace;
  return options.skipExisting ? DownloadTarget::Existing::kSkip : DownloadTarget::Existing::kRefuse;
}

DownloadTarget::Partial partialOf(const GetOptions& options) {
  if (options.range) return DownloadTarget::Partial::kThrowAway;
  return options.keepPartial ? DownloadTarget::Partial::kContinue
                             : DownloadTarget::Partial::kAfresh;
}

// The first position and the length of --range, as the engine takes them.
std::pair<std::uint64_t, std::uint64_t> positions(const GetOptions& options) {
  if (!options.range) return {0, 0};
  const ByteRange& range = *options.range;
  return {range.first, range.last ? *range.last - range.first + 1 : 0};
}

// A part of a resource goes to its place in a file of its own.
class RangeFile : public BodySink {
 public:
  RangeFile(int descriptor, std::uint64_t first) : _descriptor(descriptor), _first(first) {}

  void write(std::uint64_t offset, const std::uint8_t* data, std::size_t size) override {
    while (size != 0) {
      const ssize_t written =
          ::pwrite(_descriptor, data, size, static_cast<off_t>(offset - _first));
      if (written < 0 && errno == EINTR) continue;
      if (written <= 0) {
        throw Failure(ExitCode::kFile, std::string("cannot write: ") + std::strerror(errno),
                      "Check the free space.");
      }
      data += written;
      offset += static_cast<std::uint64_t>(written);
      size -= static_cast<std::size_t>(written);
    }
  }

 private:
  const int _descriptor;
  const std::uint64_t _first;
};

class FileJob : public Job {
 public:
  FileJob(const GetSession& session, std::uint32_t id, const std::string& url)
      : _session(session),
        _id(id),
        _url(url),
        _target(claimed(session, outputPath(session.options, url)), existingOf(session.options),
                partialOf(session.options)) {
    TransferHooks hooks;
    hooks.complete = [this] { complete(); };
    if (session.options.remoteName && session.options.output.empty()) {
      hooks.inspect = [this](const HeaderList& headers) { takeRemoteName(headers); };
    }
    if (session.options.range) {
      _sink.emplace(_target.descriptor(), session.options.range->first);
      hooks.sink = &*_sink;
    }
    TransferOptions options = session.options.common.transfer;
    options.foundPartial = _target.foundPartial();
    _transfer.emplace(id, options, std::move(hooks), session.gate, session.observer);
  }

  Transfer& transfer() override { return *_transfer; }
  void start(kovo_instance instance) override {
    if (_sink) {
      const auto [first, length] = positions(_session.options);
      _transfer->startDownloadToSink(instance, _url, first, length);
      return;
    }
    notePartial({absolutePath(_target.partialPath()), displayUrl(_url)});
    _transfer->startDownload(instance, _url, _target.partialPath());
  }
  std::string label() const override { return printable(baseName(_target.finalPath())); }
  const std::string& url() const override { return _url; }
  std::string doing() const override { return "cannot download"; }
  std::string file() const override { return printable(_target.finalPath()); }
  std::uint64_t storedBefore() const override {
    return _target.foundPartial() ? _target.storedBytes() : 0;
  }
  std::uint64_t size() const override { return _size; }
  std::string summaryNote() const override {
    return _session.options.sha256.empty() ? "" : "SHA-256 verified";
  }
  std::string settleFailed() override {
    const std::string partial = _target.partialPath();
    if (_target.settleFailed()) {
      return "What has come is kept in " + printable(partial) + "; run the same command again" +
             (_session.severalUrls && !_session.options.force ? " with --skip-existing" : "") +
             " to go on.";
    }
    if (!_sink) forgetPartial(absolutePath(partial));
    return {};
  }

 private:
  void takeRemoteName(const HeaderList& headers) {
    for (const auto& [name, value] : headers) {
      if (::strcasecmp(name.c_str(), "Content-Disposition") != 0) continue;
      const std::string proposed = fileNameFromDisposition(value);
      if (proposed.empty() || proposed == baseName(_target.finalPath())) continue;
      try {
        _target.rename(proposed);
        _session.claims.claim(_target.finalPath());
      } catch (const Failure&) {
        _target.discardOnFailure();
        throw;
      }
    }
  }

  void complete() {
    if (!_session.options.sha256.empty()) verifyChecksum();
    _size = _target.commit();
    if (!_sink) forgetPartial(absolutePath(_target.partialPath()));
  }

  void verifyChecksum() {
    const std::string& expected = _session.options.sha256;
    _session.observer.verifying(_id);
    const std::string found =
        sha256OfFile(_target.partialPath(), [this] { return _session.signals.stopSignal() != 0; });
    if (found == expected) return;
    if (found.empty()) {
      if (!_sink) throw Interrupted();
      throw Failure(static_cast<ExitCode>(128 + _session.signals.stopSignal()), "interrupted");
    }
    throw Failure(ExitCode::kChecksum,
                  "the SHA-256 of " + printable(_target.finalPath()) + " differs\n  expected " +
                      expected + "\n  received " + found,
                  _sink ? ""
                        : "The bytes stay in " + printable(_target.partialPath()) +
                              " for inspection; running the command again fetches them anew.");
  }

  const GetSession& _session;
  const std::uint32_t _id;
  const std::string _url;
  DownloadTarget _target;
  std::optional<RangeFile> _sink;
  std::optional<Transfer> _transfer;
  std::uint64_t _size = 0;
};

class StdoutJob : public Job {
 public:
  StdoutJob(const GetSession& session, std::uint32_t id, const std::string& url)
      : _session(session),
        _url(url),
        _output(STDOUT_FILENO, positions(session.options).first,
                2 * session.options.chunkSize * session.options.common.connections) {
    TransferHooks hooks;
    hooks.sink = &_output;
    _transfer.emplace(id, session.options.common.transfer, hooks, session.gate, session.observer);
  }

  Transfer& transfer() override { return *_transfer; }
  void start(kovo_instance instance) override {
    const auto [first, length] = positions(_session.options);
    _transfer->startDownloadToSink(instance, _url, first, length);
  }
  std::string label() const override {
    const std::string name = lastPathSegment(_url);
    return name.empty() ? "standard output" : printable(name);
  }
  const std::string& url() const override { return _url; }
  std::string doing() const override { return "cannot download"; }
  std::string file() const override { return {}; }
  std::uint64_t size() const override { return _output.bytesWritten(); }
  std::string settleFailed() override {
    const std::uint64_t written = _output.bytesWritten();
    if (written == 0) return {};
    return std::to_string(written) + " bytes have been written to the standard output; --range " +
           std::to_string(positions(_session.options).first + written) + "- fetches the rest.";
  }

 private:
  const GetSession& _session;
  const std::string _url;
  OrderedOutput _output;
  std::optional<Transfer> _transfer;
};

}  // namespace

void NameClaims::claim(const std::string& path) {
  const std::lock_guard<std::mutex> hold(_mutex);
  if (_taken.insert(absolutePath(path)).second) return;
  throw Failure(ExitCode::kFileExists,
                "another URL of this command has the name " + printable(path),
                "Download it apart with -o FILE.");
}

std::unique_ptr<Job> makeFileJob(const GetSession& session, std::uint32_t id,
                                 const std::string& url) {
  return std::make_unique<FileJob>(session, id, url);
}

std::unique_ptr<Job> makeStdoutJob(const GetSession& session, std::uint32_t id,
                                   const std::string& url) {
  return std::make_unique<StdoutJob>(session, id, url);
}

}  // namespace kovo::cli
