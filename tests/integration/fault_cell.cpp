#include "integration/fault_cell.h"

#include <gtest/gtest.h>
#include <kovo/kovo_ext.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utime.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <limits>
#include <thread>
#include <vector>

#include "support/serve_resource.h"
#include "support/socket.h"

namespace kovo::test {
namespace {

using std::chrono::milliseconds;

/* Downloads come in seven chunks, the last one short; the fourth is the victim. Uploads go in two
 * parts, of which the first has the least size there is. */
constexpr uint64_t kVictimStart = 3 * kMatrixChunk;
constexpr uint64_t kDownloadSize = 6 * kMatrixChunk + 77;
constexpr uint64_t kUploadSize = 5 * 1024 * 1024 + 1000;
/* A stall is over after this; nothing else may take that long, however slow the machine and the
 * sanitizer are. */
constexpr uint32_t kStallSeconds = 3;
/* A drip goes on for longer than its timeout. */
constexpr uint32_t kDripSeconds = 5;
constexpr uint64_t kDripRate = 10;
constexpr uint64_t kDripBytes = 65;
constexpr uint32_t kPatienceSeconds = 60;
/* The client asks at most ten times more before it calls redirects endless. */
constexpr int kRedirects = 11;
constexpr char kGarbage[] = "\x01\x02garbage\xff\xfe\r\n\x7f and more of it";

int strikesOf(const std::optional<Cell>& cell) {
  if (!cell) return 0;
  if (isLocal(cell->fault) || cell->phase == Phase::kBetweenChunks) return 1;
  if (!cell->retried) return std::numeric_limits<int>::max();
  return cell->fault == Fault::kRedirectLoop ? kRedirects : 1;
}

uint32_t timeoutOf(const std::optional<Cell>& cell) {
  if (!cell) return kPatienceSeconds;
  if (cell->fault == Fault::kStall) return kStallSeconds;
  return cell->fault == Fault::kDrip ? kDripSeconds : kPatienceSeconds;
}

bool has(const std::string& text, const char* part) {
  return text.find(part) != std::string::npos;
}

std::string rangeText(uint64_t first, uint64_t length, uint64_t total) {
  return "bytes " + std::to_string(first) + '-' + std::to_string(first + length - 1) + '/' +
         std::to_string(total);
}

}  // namespace

/* Where a server ought to be: nobody, somebody who does not get as far as TCP, or as TLS. */
class FaultCell::NoServer {
 public:
  explicit NoServer(const Cell& cell) : _cell(cell), _listener(listenOnLoopback()) {
    _port = localPort(_listener);
    if (cell.phase == Phase::kTls) {
      _thread = std::thread([this] { answerHandshakes(); });
    } else if (cell.fault == Fault::kStall) {
      occupy();
    } else {
      _listener.close();
    }
  }
  ~NoServer() {
    _stop = true;
    if (_thread.joinable()) _thread.join();
  }

  std::string url() const {
    if (_cell.phase == Phase::kResolve) return "http://nowhere.invalid/";
    const std::string scheme = _cell.phase == Phase::kTls ? "https" : "http";
    return scheme + "://127.0.0.1:" + std::to_string(_port) + "/assets/key";
  }

 private:
  /* Fills the queue of connections nobody accepts, so that the next ones get no answer. */
  void occupy() {
    ::listen(_listener.get(), 0);
    for (int i = 0; i < 8; ++i) {
      UniqueFd waiting(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
      sockaddr_storage address{};
      socklen_t size = sizeof address;
      ::getsockname(_listener.get(), reinterpret_cast<sockaddr*>(&address), &size);
      ::connect(waiting.get(), reinterpret_cast<const sockaddr*>(&address), size);
      _connections.push_back(std::move(waiting));
    }
  }

  void answerHandshakes() {
    while (!_stop) {
      pollfd event{_listener.get(), POLLIN, 0};
      if (::poll(&event, 1, 20) <= 0) continue;
      UniqueFd socket(::accept4(_listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
      pollfd hello{socket.get(), POLLIN, 0};
      ::poll(&hello, 1, 5000);
      char received[16384];
      ::recv(socket.get(), received, sizeof received, 0);
      if (_cell.fault == Fault::kStall) {
        _connections.push_back(std::move(socket));
        continue;
      }
      std::string answer;
      if (_cell.fault == Fault::kRefused) answer = std::string("\x15\x03\x03\x00\x02\x02\x28", 7);
      if (_cell.fault == Fault::kGarbage) answer = kGarbage;
      ::send(socket.get(), answer.data(), answer.size(), MSG_NOSIGNAL);
      if (_cell.fault == Fault::kReset) {
        const linger atOnce{1, 0};
        ::setsockopt(socket.get(), SOL_SOCKET, SO_LINGER, &atOnce, sizeof atOnce);
      }
    }
  }

  const Cell _cell;
  UniqueFd _listener;
  uint16_t _port = 0;
  std::vector<UniqueFd> _connections;
  std::atomic<bool> _stop{false};
  std::thread _thread;
};

FaultCell::FaultCell(Kind kind, std::string folder, std::optional<Cell> cell)
    : _kind(kind),
      _folder(std::move(folder)),
      _cell(cell),
      _resource(71, isUpload(kind) ? kUploadSize : kDownloadSize),
      _files(_folder + "/files"),
      _file(_files + (isUpload(kind) ? "/input" : "/output._kstmp")),
      _strikesLeft(strikesOf(cell)) {
  std::filesystem::create_directories(_files);
  if (cell && (cell->fault == Fault::kDiskFull || cell->fault == Fault::kReadOnlyDirectory)) {
    _local.disk = std::make_unique<SmallDisk>(kind == Kind::kFile ? _files : dataHome());
    if (!_local.disk->mounted()) _local.disk.reset();
    /* The databases' directory is asked when the engine is made. */
    if (_local.disk && kind != Kind::kFile && cell->fault == Fault::kReadOnlyDirectory) {
      _local.disk->makeReadOnly();
    }
  }
  if (isUpload(kind)) _resource.writeTo(_file);
  if (cell && isOfConnection(cell->fault) && cell->phase <= Phase::kTls) {
    _noServer = std::make_unique<NoServer>(*cell);
  } else if (isUpload(kind)) {
    _mock = std::make_unique<StorageMock>(
        [this](const OriginRequest& request, Responder& to) -> std::optional<Refusal> {
          if (_cell && isOfAnswer(_cell->fault)) {
            if (!isStruck(request)) return std::nullopt;
            to.readBody();
            return refusal(request);
          }
          if (strike(request, to)) throw ConnectionOver();
          return std::nullopt;
        },
        true);
  } else {
    ServeOptions serve;
    if (cell && cell->fault == Fault::kChangedContent) serve.etag = serve.lastModified = "";
    _origin = std::make_unique<FaultOrigin>([this, good = serveResource(_resource, serve)](
                                                const OriginRequest& request, Responder& to) {
      if (!strike(request, to)) good(request, to);
    });
  }
}

FaultCell::~FaultCell() = default;

std::string FaultCell::unavailable() const {
  const bool wantsDisk =
      _cell && (_cell->fault == Fault::kDiskFull || _cell->fault == Fault::kReadOnlyDirectory);
  if (!wantsDisk || _local.disk) return {};
  if (_kind != Kind::kFile) return "no file system can be mounted";
  return _cell->fault == Fault::kReadOnlyDirectory && ::geteuid() == 0
             ? "no file system can be mounted, and modes do not bind root"
             : "";
}

bool FaultCell::isFirst(const OriginRequest& request) const {
  switch (_kind) {
    case Kind::kS3:
      return request.query == "uploads";
    case Kind::kSync:
      return request.path.starts_with("/assets/");
    default:
      return request.rangeStart() == 0;
  }
}

bool FaultCell::isVictim(const OriginRequest& request) const {
  if (_kind == Kind::kRequest) return true;
  const Phase phase = _cell->phase;
  if (isUpload(_kind)) {
    const bool isFinal = _kind == Kind::kS3
                             ? request.verb == "POST" && has(request.query, "uploadId=")
                             : request.path.starts_with("/finalise/");
    switch (phase) {
      case Phase::kRequestSent:
        return has(request.query, "partNumber=1&");
      case Phase::kHeaders:
      case Phase::kPart:
        return has(request.query, "partNumber=2&");
      case Phase::kFinalisation:
        return isFinal;
      default:
        return isFirst(request);
    }
  }
  if (phase == Phase::kBetweenChunks && isOfConnection(_cell->fault)) return isFirst(request);
  if (phase == Phase::kRequestSent && isLocal(_cell->fault)) return isFirst(request);
  if (phase == Phase::kLastByte && isLocal(_cell->fault)) {
    return request.rangeStart() == 6 * kMatrixChunk;
  }
  return request.rangeStart() == kVictimStart;
}

bool FaultCell::isStruck(const OriginRequest& request) {
  return _cell && _cell->phase != Phase::kResolve && isVictim(request) &&
         _strikesLeft.fetch_sub(1) > 0;
}

bool FaultCell::strike(const OriginRequest& request, Responder& to) {
  if (!isStruck(request)) return false;
  if (isOfAnswer(_cell->fault)) {
    strikeWithPart(request, to);
    return true;
  }
  if (isOfConnection(_cell->fault)) return strikeConnection(to);
  if (_cell->phase == Phase::kMidBody || _cell->phase == Phase::kLastByte) {
    to.during(_cell->phase == Phase::kMidBody ? Moment::kMiddle : Moment::kLastByte,
              [this] { spoil(); });
  } else {
    spoil();
  }
  return false;
}

/* The moments of an answer, or what stands in its place. */
bool FaultCell::strikeConnection(Responder& to) {
  const auto act = [this, &to] { disturb(to); };
  switch (_cell->phase) {
    case Phase::kHeaders:
      to.during(Moment::kHead, act);
      return false;
    case Phase::kFirstByte:
      to.during(Moment::kFirstByte, act);
      return false;
    case Phase::kMidBody:
      to.during(Moment::kMiddle, act);
      return false;
    case Phase::kLastByte:
      to.during(Moment::kLastByte, act);
      return false;
    case Phase::kBetweenChunks:
      to.during(Moment::kLastByte, [this, &to] { strikeBetweenChunks(to); });
      return false;
    default:
      break;
  }
  if (_cell->fault == Fault::kDrip) {
    if (_cell->phase == Phase::kRequestSent) {
      to.stallFor(milliseconds(800));
    } else {
      to.during(Moment::kHead, act);
    }
    return false;
  }
  if (_cell->phase != Phase::kRequestSent) to.readBody();
  disturb(to);
  return true;
}

/* What ends an answer goes out together with what follows it on the connection. */
void FaultCell::strikeBetweenChunks(Responder& to) {
  std::string last = _kind == Kind::kS3     ? ">"
                     : _kind == Kind::kSync ? "}"
                                            : _resource.bytes(kMatrixChunk - 1, 1);
  FaultOrigin& origin = _mock ? _mock->origin() : *_origin;
  if (_cell->fault == Fault::kRefused) origin.stopListening();
  if (_cell->fault == Fault::kGarbage) last += kGarbage;
  to.raw(last);
  if (_cell->fault != Fault::kReset) to.close();
  /* A reset must not overtake the answer; a request that comes meanwhile is lost with it. */
  to.stallFor(milliseconds(50));
  to.reset();
}

void FaultCell::disturb(Responder& to) const {
  switch (_cell->fault) {
    case Fault::kReset:
      to.reset();
    case Fault::kClose:
      to.close();
    case Fault::kStall:
      to.stall();
      break;
    case Fault::kDrip:
      if (_cell->phase == Phase::kLastByte) {
        to.stallFor(milliseconds(800));
      } else {
        to.drip(kDripBytes, kDripRate);
      }
      break;
    case Fault::kGarbage:
      to.raw(kGarbage);
      to.close();
    default:
      break;
  }
}

void FaultCell::strikeWithPart(const OriginRequest& request, Responder& to) const {
  const uint64_t first = request.rangeStart();
  const Resource other(72, kDownloadSize + 1000);
  const auto part = [&](uint64_t offset, uint64_t length, const char* tag, const Resource& of) {
    Headers headers{{"Content-Range", rangeText(offset, length, of.size())},
                    {"Content-Length", std::to_string(length)}};
    if (*tag != '\0') headers.emplace_back("ETag", tag);
    to.head(206, headers);
    to.range(of, offset, length);
  };
  switch (_cell->fault) {
    case Fault::kWrongContentRange:
      part(first + 1, kMatrixChunk, "\"v1\"", _resource);
      break;
    case Fault::kShortRange:
      part(first, 100, "\"v1\"", _resource);
      break;
    case Fault::kChangedEntityTag:
      part(first, kMatrixChunk, "\"v2\"", Resource(73, kDownloadSize));
      break;
    case Fault::kChangedContent:
      part(first, kMatrixChunk, "", other);
      break;
    default: {
      const Refusal answer = refusal(request);
      to.respond(answer.status, answer.headers, answer.body);
      break;
    }
  }
}

Refusal FaultCell::refusal(const OriginRequest& request) const {
  if (_cell->fault == Fault::kRedirectLoop) return {307, {{"Location", request.target}}, ""};
  if (_cell->fault == Fault::kChangedEntityTag) return {200, {{"ETag", "\"another\""}}, ""};
  return {*statusOf(_cell->fault), {{"ETag", "\"v1\""}}, "no"};
}

void FaultCell::spoil() {
  switch (_cell->fault) {
    case Fault::kDiskFull:
      if (_local.disk != nullptr) {
        _local.disk->fill();
      } else {
        _local.limit = std::make_unique<FileSizeLimit>(0);
      }
      break;
    case Fault::kReadOnlyDirectory:
      if (_local.disk != nullptr) {
        if (_kind == Kind::kFile) _local.disk->makeReadOnly();
      } else {
        ::chmod(_files.c_str(), 0555);
      }
      break;
    case Fault::kOutputDeleted:
      std::filesystem::remove(_file);
      break;
    case Fault::kOutputTruncated:
      std::filesystem::resize_file(_file, 0);
      break;
    case Fault::kInputChanged:
      if (_cell->phase == Phase::kPart) {
        /* As long as it was. */
        const time_t later = ::time(nullptr) + 100;
        const utimbuf times{later, later};
        std::fstream(_file, std::ios::binary | std::ios::in | std::ios::out) << "other bytes";
        ::utime(_file.c_str(), &times);
      } else {
        std::ofstream(_file, std::ios::binary | std::ios::app) << "more bytes";
      }
      break;
    case Fault::kDatabaseLocked:
      _local.lockDatabases(dataHome());
      break;
    case Fault::kDatabaseCorrupted:
      LocalFaults::corruptDatabases(dataHome());
      break;
    case Fault::kDatabaseDeleted:
      LocalFaults::deleteDatabases(dataHome());
      break;
    case Fault::kDataDirectoryGone:
      LocalFaults::deleteDataDirectory(dataHome());
      break;
    default:
      break;
  }
}

std::string FaultCell::url() const {
  if (_noServer) return _noServer->url();
  return _mock ? _mock->url(_kind == Kind::kS3 ? "/bucket/key" : "/assets/key") : _origin->url();
}

void FaultCell::start(TestEngine& engine) {
  if (_cell && isLocal(_cell->fault) && _cell->phase == Phase::kResolve) spoil();
  TransferHooks hooks;
  hooks.timeoutSeconds = timeoutOf(_cell);
  if (_cell && _cell->retried) {
    const auto answers = std::make_shared<std::atomic<int>>(0);
    hooks.retry = [answers](uint32_t, uint32_t) { return ++*answers <= 4 ? 1 : 0; };
  }
  switch (_kind) {
    case Kind::kFile:
      _record = &engine.download(url(), _file, hooks, KOVO_CHUNKING_ALWAYS);
      break;
    case Kind::kMemory:
      _record = &engine.downloadToMemory(url(), hooks, KOVO_CHUNKING_ALWAYS);
      break;
    case Kind::kS3:
    case Kind::kSync:
      hooks.serverType = _kind == Kind::kS3 ? KOVO_SERVER_TYPE_S3 : KOVO_SERVER_TYPE_SYNC_SERVICE;
      _record = &engine.upload(KOVO_HTTP_PUT, url(), _file, hooks, KOVO_CHUNKING_ALWAYS);
      break;
    case Kind::kRequest:
      _record = &engine.sendRequest(KOVO_HTTP_GET, url(), hooks);
      break;
  }
}

void FaultCell::expectEnding(TestEngine& engine) {
  if (!engine.wait(*_record, milliseconds(180000))) return;
  const TransferEvents events = _record->events();
  _outcome = events.completions != 0 ? "ok" : std::to_string(events.errorCode);
  const Ending documented = _cell ? documentedEnding(*_cell) : Ending();
  EXPECT_EQ(events.finals(), 1u);
  switch (documented.how) {
    case Ending::How::kCompletes:
      EXPECT_EQ(events.completions, 1u) << events.errorCode << " " << events.errorText;
      break;
    case Ending::How::kAnswers:
      EXPECT_EQ(events.completions, 1u) << events.errorText;
      EXPECT_EQ(events.status, static_cast<uint32_t>(*statusOf(_cell->fault)));
      _outcome = std::to_string(events.status);
      break;
    case Ending::How::kFails:
      EXPECT_EQ(events.errors, 1u);
      EXPECT_TRUE(documented.allows(events.errorCode))
          << events.errorCode << " " << events.errorText << ", documented " << documented.code;
      EXPECT_NE(events.errorText, "");
      break;
  }
  if (documented.how != Ending::How::kAnswers) expectBytes(events, events.completions != 0);
  _local.unlockDatabases();
  _local.limit.reset();
  if (_cell && _cell->fault == Fault::kReadOnlyDirectory) ::chmod(_files.c_str(), 0755);
}

void FaultCell::expectBytes(const TransferEvents& events, bool completed) const {
  switch (_kind) {
    case Kind::kFile:
      if (completed) {
        EXPECT_EQ(_resource.differenceTo(_file), "");
      } else {
        EXPECT_FALSE(std::filesystem::exists(_file));
      }
      break;
    case Kind::kMemory:
    case Kind::kRequest:
      if (completed) {
        EXPECT_TRUE(events.wholeBody() == _resource.all());
      }
      for (const auto& [offset, data] : events.body) {
        EXPECT_TRUE(_resource.matches(offset, data));
      }
      break;
    case Kind::kS3:
    case Kind::kSync: {
      const auto object =
          _mock ? _mock->object(_kind == Kind::kS3 ? "/bucket/key" : "/assets/key") : std::nullopt;
      EXPECT_EQ(object.has_value(), completed);
      if (object) {
        EXPECT_TRUE(object->size() == kUploadSize && _resource.matches(0, *object));
      }
      break;
    }
  }
}

}  // namespace kovo::test
