#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace kovo::test {

/* The table of reliability: every kind of transfer meets every fault in every phase. */

enum class Kind { kFile, kMemory, kS3, kSync, kRequest };

enum class Phase {
  kResolve, /* and whatever is in place before a transfer starts */
  kConnect,
  kTls,
  kRequestSent,
  kHeaders,
  kFirstByte,
  kMidBody,
  kLastByte,
  kBetweenChunks,
  kInitialisation,
  kPart,
  kFinalisation,
};

enum class Fault {
  /* Of the connection. */
  kRefused,
  kReset,
  kClose,
  kStall,
  kDrip,
  kGarbage,
  /* Of the answer. */
  kWrongContentRange,
  kShortRange,
  kChangedEntityTag,
  kChangedContent,
  kStatus404,
  kStatus407,
  kStatus416,
  kStatus429,
  kStatus503,
  kRedirectLoop,
  /* Of this machine. */
  kDiskFull,
  kReadOnlyDirectory,
  kOutputDeleted,
  kOutputTruncated,
  kInputChanged,
  kDatabaseLocked,
  kDatabaseCorrupted,
  kDatabaseDeleted,
  kDataDirectoryGone,
};

struct Cell {
  Kind kind;
  Phase phase;
  Fault fault;
  /* The fault comes once and the client answers yes when it is asked whether to send again;
   * otherwise it stays and the answer is no. */
  bool retried = false;
};

/** How a transfer is documented to end. */
struct Ending {
  enum class How {
    kCompletes,
    kAnswers, /* completes with the server's refusal as its answer */
    kFails
  } how = How::kCompletes;
  /* The error's code; KOVO_ERROR_PLATFORM_STATUS stands for itself and everything above. */
  uint32_t code = 0;

  bool allows(uint32_t reported) const;
};

std::vector<Kind> allKinds();
std::vector<Phase> allPhases();
std::vector<Fault> allFaults();
std::string nameOf(Kind kind);
std::string nameOf(Phase phase);
std::string nameOf(Fault fault);

bool isUpload(Kind kind);
bool isDownload(Kind kind);
bool isOfConnection(Fault fault);
bool isOfAnswer(Fault fault);
bool isLocal(Fault fault);
/** The status of a fault that is one. */
std::optional<int> statusOf(Fault fault);

/** Why a cell makes no sense; empty for one that does. */
std::string whyNot(const Cell& cell);
/** What the C interface documents for a cell that makes sense. */
Ending documentedEnding(const Cell& cell);

}  // namespace kovo::test
