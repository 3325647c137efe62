#include "download_target.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <utility>

#include "failure.h"
#include "safe_text.h"

namespace kovo::cli {

namespace {

std::string folderOf(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  if (slash == std::string::npos) return ".";
  return slash == 0 ? "/" : path.substr(0, slash);
}

[[noreturn]] void failFile(const std::string& doing, const std::string& path, int error,
                           const std::string& advice = {}) {
  throw Failure(ExitCode::kFile, doing + " " + printable(path) + ": " + std::strerror(error),
                advice);
}

[[noreturn]] void failExists(const std::string& path) {
  throw Failure(ExitCode::kFileExists, printable(path) + " exists already",
                "Use --force to replace it, or -o FILE to choose another name.");
}

}  // namespace

DownloadTarget::DownloadTarget(std::string finalPath, Existing existing, Partial partial)
    : _finalPath(std::move(finalPath)),
      _partialPath(_finalPath + (partial == Partial::kThrowAway ? "._ksrange" : "._kstmp")),
      _existing(existing),
      _partial(partial) {
  refuseExisting();
  struct stat facts {};
  if (::stat(folderOf(_finalPath).c_str(), &facts) != 0) {
    failFile("cannot use the folder", folderOf(_finalPath), errno, "Create it first.");
  }
  lockPartial();
  if (_partial != Partial::kContinue && ::ftruncate(_lock.get(), 0) != 0)
    failFile("cannot empty", _partialPath, errno);
  _foundPartial = storedBytes() != 0;
}

void DownloadTarget::lockPartial() {
  while (true) {
    _lock.reset(::open(_partialPath.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0666));
    if (_lock.get() < 0) failFile("cannot create", _partialPath, errno);
    if (::flock(_lock.get(), LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK) {
      throw Failure(ExitCode::kFile,
                    "another transfer is downloading to " + printable(_finalPath) + " already");
    }
    // Another process may have completed its download between the two calls: then the locked file
    // is its result, under the final name.
    struct stat locked {};
    struct stat named {};
    if (::fstat(_lock.get(), &locked) != 0 || ::stat(_partialPath.c_str(), &named) != 0) continue;
    if (locked.st_ino == named.st_ino && locked.st_dev == named.st_dev) break;
  }
  refuseExisting();
}

void DownloadTarget::refuseExisting() const {
  struct stat facts {};
  if (::lstat(_finalPath.c_str(), &facts) != 0) return;
  if (S_ISDIR(facts.st_mode)) {
    throw Failure(ExitCode::kFile, printable(_finalPath) + " is a folder");
  }
  if (_existing == Existing::kRefuse) failExists(_finalPath);
  if (_existing == Existing::kSkip) {
    throw Failure(ExitCode::kOk, printable(_finalPath) + " exists already, skipped");
  }
}

void DownloadTarget::rename(const std::string& name) {
  const std::size_t slash = _finalPath.rfind('/');
  const std::string path =
      slash == std::string::npos ? name : _finalPath.substr(0, slash + 1) + name;
  if (path == _finalPath) return;
  _finalPath = path;
  refuseExisting();
}

std::uint64_t DownloadTarget::storedBytes() const {
  struct stat facts {};
  if (::stat(_partialPath.c_str(), &facts) != 0) return 0;
  const auto stored = static_cast<std::uint64_t>(facts.st_blocks) * 512;
  const auto size = static_cast<std::uint64_t>(facts.st_size);
  return stored < size ? stored : size;
}

std::uint64_t DownloadTarget::commit() {
  const FileDescriptor file(::open(_partialPath.c_str(), O_RDONLY | O_CLOEXEC));
  if (file.get() < 0) failFile("cannot open", _partialPath, errno);
  if (::fsync(file.get()) != 0) failFile("cannot write to the disk", _partialPath, errno);
  if (_existing == Existing::kReplace) {
    if (::rename(_partialPath.c_str(), _finalPath.c_str()) != 0) {
      failFile("cannot rename to", _finalPath, errno);
    }
  } else if (::renameat2(AT_FDCWD, _partialPath.c_str(), AT_FDCWD, _finalPath.c_str(),
                         RENAME_NOREPLACE) != 0) {
    if (errno == EEXIST) failExists(_finalPath);
    // Some file systems cannot rename without replacing; looking first is the best they allow.
    if (errno != EINVAL && errno != ENOSYS) failFile("cannot rename to", _finalPath, errno);
    if (::access(_finalPath.c_str(), F_OK) == 0) failExists(_finalPath);
    if (::rename(_partialPath.c_str(), _finalPath.c_str()) != 0) {
      failFile("cannot rename to", _finalPath, errno);
    }
  }
  _committed = true;
  _lock.reset();
  const std::string folder = folderOf(_finalPath);
  const FileDescriptor directory(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  // A folder that cannot be synced still holds the complete file under its name.
  if (directory.get() >= 0) ::fsync(directory.get());
  struct stat facts {};
  return ::fstat(file.get(), &facts) == 0 ? static_cast<std::uint64_t>(facts.st_size) : 0;
}

bool DownloadTarget::settleFailed() {
  if (_committed || _lock.get() < 0) return false;
  struct stat facts {};
  if (::stat(_partialPath.c_str(), &facts) != 0) {
    _lock.reset();
    return false;
  }
  const bool useful = facts.st_size != 0 && _partial != Partial::kThrowAway;
  if (!useful) ::unlink(_partialPath.c_str());
  _lock.reset();
  return useful;
}

}  // namespace kovo::cli
