#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include "command.h"
#include "failure.h"
#include "file_descriptor.h"
#include "option_table.h"
#include "partial_registry.h"
#include "quantity.h"
#include "safe_text.h"
#include "usage_error.h"

namespace kovo::cli {

namespace {

constexpr const char* kSuffix = "._kstmp";

std::string age(std::time_t changed) {
  const auto seconds = std::max<long long>(std::time(nullptr) - changed, 0);
  if (seconds < 120) return std::to_string(seconds) + " s ago";
  if (seconds < 7200) return std::to_string(seconds / 60) + " min ago";
  if (seconds < 172800) return std::to_string(seconds / 3600) + " h ago";
  return std::to_string(seconds / 86400) + " days ago";
}

void list() {
  const std::vector<PartialNote> notes = notedPartials();
  if (notes.empty()) std::puts("There is nothing to resume.");
  for (const PartialNote& note : notes) {
    struct stat facts {};
    if (::stat(note.path.c_str(), &facts) != 0) continue;
    const auto stored = std::min<std::uint64_t>(static_cast<std::uint64_t>(facts.st_blocks) * 512,
                                                static_cast<std::uint64_t>(facts.st_size));
    std::printf("%s\n  %s, %s, from %s\n", printable(note.path).c_str(),
                formatBytes(stored).c_str(), age(facts.st_mtime).c_str(),
                printable(note.url).c_str());
  }
}

// Removes a partial file and its note; one that a running transfer fills stays.
void remove(const std::string& path) {
  const FileDescriptor file(::open(path.c_str(), O_RDWR | O_CLOEXEC | O_NOFOLLOW));
  if (file.get() < 0) {
    throw Failure(ExitCode::kFile, "cannot open " + printable(path) + ": " + std::strerror(errno));
  }
  if (::flock(file.get(), LOCK_EX | LOCK_NB) != 0) {
    throw Failure(ExitCode::kFile, printable(path) + " is being downloaded");
  }
  if (::unlink(path.c_str()) != 0) {
    throw Failure(ExitCode::kFile,
                  "cannot remove " + printable(path) + ": " + std::strerror(errno));
  }
  forgetPartial(path);
  std::printf("removed %s\n", printable(path).c_str());
}

ExitCode clear(std::vector<std::string> paths) {
  if (paths.empty()) {
    for (const PartialNote& note : notedPartials()) paths.push_back(note.path);
  }
  ExitCode code = ExitCode::kOk;
  for (std::string& path : paths) {
    path = absolutePath(path);
    const std::size_t length = std::strlen(kSuffix);
    if (path.size() < length || path.compare(path.size() - length, length, kSuffix) != 0) {
      path += kSuffix;
    }
    try {
      remove(path);
    } catch (const Failure& failure) {
      std::fprintf(stderr, "kovo: %s\n", failure.what());
      code = failure.code;
    }
  }
  return code;
}

ExitCode runResume(const std::vector<std::string>& arguments) {
  std::vector<std::string> operands = OptionTable({}).parse(arguments);
  if (operands.size() == 1 && operands[0] == "list") {
    list();
    return ExitCode::kOk;
  }
  if (!operands.empty() && operands[0] == "clear") {
    operands.erase(operands.begin());
    return clear(std::move(operands));
  }
  throw UsageError("kovo resume needs one of the words list and clear");
}

std::string resumeHelp() {
  return "Usage: kovo resume list | clear [FILE...]\n\n"
         "list   prints the downloads of this user that were interrupted\n"
         "clear  removes their partial files: those of FILE, or all of them\n\n"
         "To go on with one, run its kovo get again.\n";
}

}  // namespace

Command resumeCommand() {
  return {"resume", "list or remove interrupted downloads", &runResume, &resumeHelp};
}

}  // namespace kovo::cli
