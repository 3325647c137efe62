#include "integration/fault_matrix.h"

#include <kovo/kovo.h>

#include <algorithm>
#include <initializer_list>

namespace kovo::test {
namespace {

template <typename T>
bool isOneOf(T value, std::initializer_list<T> values) {
  return std::find(values.begin(), values.end(), value) != values.end();
}

template <typename T>
std::vector<T> upTo(T last) {
  std::vector<T> all;
  for (int i = 0; i <= static_cast<int>(last); ++i) all.push_back(static_cast<T>(i));
  return all;
}

bool isUploadStep(Phase phase) {
  return phase >= Phase::kInitialisation;
}

bool isBeforeTheRequest(Phase phase) {
  return phase <= Phase::kTls;
}

std::string whyNotConnection(const Cell& cell) {
  const auto [kind, phase, fault, retried] = cell;
  switch (phase) {
    case Phase::kResolve:
      return fault == Fault::kRefused ? "" : "the resolver belongs to the system";
    case Phase::kConnect:
      return isOneOf(fault, {Fault::kRefused, Fault::kStall})
                 ? ""
                 : "no byte is exchanged before TCP is";
    case Phase::kTls:
      return fault == Fault::kDrip ? "as in the headers" : "";
    case Phase::kBetweenChunks:
      if (kind == Kind::kRequest) return "there is one request";
      return isOneOf(fault, {Fault::kStall, Fault::kDrip}) ? "nothing is on its way" : "";
    case Phase::kLastByte:
      if (fault == Fault::kGarbage) return "no framing shows one wrong byte";
      [[fallthrough]];
    default:
      return fault == Fault::kRefused ? "the connection exists" : "";
  }
}

std::string whyNotAnswer(const Cell& cell) {
  const auto [kind, phase, fault, retried] = cell;
  const bool ofRange = isOneOf(fault, {Fault::kWrongContentRange, Fault::kShortRange});
  if (ofRange && !isDownload(kind)) return "no range is asked for";
  if (fault == Fault::kChangedContent && !isDownload(kind)) return "nothing is fetched";
  if (fault == Fault::kChangedEntityTag) {
    if (kind == Kind::kRequest) return "one answer has one tag";
    if (isUpload(kind)) return phase == Phase::kPart ? "" : "parts have tags";
  }
  const bool told = isUpload(kind) ? isUploadStep(phase) : phase == Phase::kHeaders;
  return told ? "" : "the head of an answer tells it";
}

std::string whyNotLocal(const Cell& cell) {
  const auto [kind, phase, fault, retried] = cell;
  const bool ofOutput = isOneOf(fault, {Fault::kOutputDeleted, Fault::kOutputTruncated});
  if (ofOutput && kind != Kind::kFile) return "there is no output file";
  if (fault == Fault::kInputChanged && !isUpload(kind)) return "there is no input file";
  if (phase == Phase::kResolve) {
    return ofOutput || fault == Fault::kInputChanged ? "nothing has begun" : "";
  }
  if (fault == Fault::kReadOnlyDirectory) return "asked when files are created";
  if (isUpload(kind)) return isUploadStep(phase) ? "" : "as in the steps of the upload";
  if (kind == Kind::kRequest) return phase == Phase::kMidBody ? "" : "one moment stands for all";
  return isOneOf(phase,
                 {Phase::kRequestSent, Phase::kMidBody, Phase::kLastByte, Phase::kBetweenChunks})
             ? ""
             : "as in the phases beside it";
}

Ending fails(uint32_t code) {
  return {Ending::How::kFails, code};
}

Ending endingOfLocal(const Cell& cell) {
  switch (cell.fault) {
    case Fault::kDiskFull:
      if (cell.kind == Kind::kFile) return fails(KOVO_ERROR_INSUFFICIENT_DISK_SPACE);
      break;
    case Fault::kReadOnlyDirectory:
      if (cell.kind == Kind::kFile) return fails(KOVO_ERROR_INVALID_OUTPUT_FILE);
      break;
    case Fault::kOutputDeleted:
      return fails(KOVO_ERROR_FILE_NOT_FOUND);
    case Fault::kOutputTruncated:
      /* With the first request on its way the file is still empty. */
      if (cell.phase != Phase::kRequestSent) return fails(KOVO_ERROR_NOT_ENOUGH_DATA);
      break;
    case Fault::kInputChanged:
      /* Once the last request is on its way the parts are all stored as they were. */
      if (cell.phase != Phase::kFinalisation) return fails(KOVO_ERROR_FILE_MODIFIED);
      break;
    default:
      break; /* databases save work; no transfer depends on them */
  }
  return {};
}

}  // namespace

bool Ending::allows(uint32_t reported) const {
  return code == KOVO_ERROR_PLATFORM_STATUS ? reported >= code : reported == code;
}

std::vector<Kind> allKinds() {
  return upTo(Kind::kRequest);
}
std::vector<Phase> allPhases() {
  return upTo(Phase::kFinalisation);
}
std::vector<Fault> allFaults() {
  return upTo(Fault::kDataDirectoryGone);
}

std::string nameOf(Kind kind) {
  constexpr const char* kNames[] = {"download to a file", "download to memory", "S3 upload",
                                    "sync service upload", "plain request"};
  return kNames[static_cast<int>(kind)];
}

std::string nameOf(Phase phase) {
  constexpr const char* kNames[] = {"resolve or before", "connect",   "TLS",
                                    "request sent",      "headers",   "first byte",
                                    "mid-body",          "last byte", "between chunks",
                                    "initialisation",    "part",      "finalisation"};
  return kNames[static_cast<int>(phase)];
}

std::string nameOf(Fault fault) {
  constexpr const char* kNames[] = {"refused",
                                    "reset",
                                    "orderly close",
                                    "stall",
                                    "slow drip",
                                    "garbage",
                                    "wrong Content-Range",
                                    "short range",
                                    "changed entity tag",
                                    "changed content",
                                    "404",
                                    "407",
                                    "416",
                                    "429",
                                    "503",
                                    "redirect loop",
                                    "disk full",
                                    "read-only directory",
                                    "output deleted",
                                    "output truncated",
                                    "input changed",
                                    "database locked",
                                    "database corrupted",
                                    "database deleted",
                                    "data directory gone"};
  return kNames[static_cast<int>(fault)];
}

bool isUpload(Kind kind) {
  return kind == Kind::kS3 || kind == Kind::kSync;
}
bool isDownload(Kind kind) {
  return kind == Kind::kFile || kind == Kind::kMemory;
}
bool isOfConnection(Fault fault) {
  return fault <= Fault::kGarbage;
}
bool isOfAnswer(Fault fault) {
  return !isOfConnection(fault) && !isLocal(fault);
}
bool isLocal(Fault fault) {
  return fault >= Fault::kDiskFull;
}

std::optional<int> statusOf(Fault fault) {
  switch (fault) {
    case Fault::kStatus404:
      return 404;
    case Fault::kStatus407:
      return 407;
    case Fault::kStatus416:
      return 416;
    case Fault::kStatus429:
      return 429;
    case Fault::kStatus503:
      return 503;
    default:
      return std::nullopt;
  }
}

std::string whyNot(const Cell& cell) {
  if (isUploadStep(cell.phase) && !isUpload(cell.kind)) return "a step of uploads in parts";
  if (cell.retried) {
    if (cell.kind == Kind::kRequest) return "a plain request is not sent again";
    if (isLocal(cell.fault)) return "sending again does not help this machine";
    if (isBeforeTheRequest(cell.phase) || cell.fault == Fault::kRefused) {
      return "nobody is there the second time either";
    }
  }
  if (isOfConnection(cell.fault)) return whyNotConnection(cell);
  return isLocal(cell.fault) ? whyNotLocal(cell) : whyNotAnswer(cell);
}

Ending documentedEnding(const Cell& cell) {
  if (isLocal(cell.fault)) return endingOfLocal(cell);
  if (isOneOf(cell.fault, {Fault::kDrip, Fault::kShortRange})) return {};
  if (isOfConnection(cell.fault) && cell.phase == Phase::kBetweenChunks) {
    /* A kept connection that died unused is replaced without a word. */
    return cell.fault == Fault::kRefused ? fails(KOVO_ERROR_PLATFORM_STATUS) : Ending{};
  }
  /* A download is never put together from two versions, whoever asks for it. */
  if (isDownload(cell.kind)) {
    if (isOneOf(cell.fault, {Fault::kChangedEntityTag, Fault::kChangedContent})) {
      return fails(KOVO_ERROR_DOWNLOAD_FAILED);
    }
    /* The server says that there is nothing there, and it will again. */
    if (cell.fault == Fault::kStatus416) return fails(KOVO_ERROR_NOT_ENOUGH_DATA);
  }
  /* The server has been told of another part than the one it holds, and refuses the whole. */
  if (cell.fault == Fault::kChangedEntityTag) return fails(KOVO_ERROR_CHUNK_RETRY_FAILED);
  if (cell.retried) return {};
  if (cell.fault == Fault::kStall) return fails(KOVO_ERROR_TIMEOUT);
  if (cell.fault == Fault::kWrongContentRange) return fails(KOVO_ERROR_OPERATION_ERROR);
  if (statusOf(cell.fault)) {
    return cell.kind == Kind::kRequest ? Ending{Ending::How::kAnswers, 0}
                                       : fails(KOVO_ERROR_CHUNK_RETRY_FAILED);
  }
  return fails(KOVO_ERROR_PLATFORM_STATUS);
}

}  // namespace kovo::test
