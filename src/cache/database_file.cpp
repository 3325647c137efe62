#include "cache/database_file.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "platform/clock.h"

namespace kovo {
namespace {

constexpr mode_t kOwnerOnly = S_IRUSR | S_IWUSR;
constexpr int kLockAttempts = 100;
constexpr int kLockPauseMilliseconds = 20;

std::string directoryOf(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  if (slash == std::string::npos) {
    return ".";
  }
  return path.substr(0, slash + 1);
}

}  // namespace

bool createPrivateFile(const std::string& path) {
  // mknod, unlike open, makes a file without a descriptor; some sandboxes forbid it.
  if (::mknod(path.c_str(), S_IFREG | kOwnerOnly, 0) != 0 && errno != EEXIST) {
    const int descriptor = ::open(path.c_str(), O_CREAT | O_EXCL | O_RDWR | O_CLOEXEC, kOwnerOnly);
    if (descriptor < 0) {
      return false;
    }
    ::close(descriptor);
  }
  struct stat facts;
  if (::lstat(path.c_str(), &facts) != 0 || !S_ISREG(facts.st_mode)) {
    return false;
  }
  if ((facts.st_mode & (S_IRWXG | S_IRWXO)) != 0 && facts.st_uid == ::geteuid()) {
    return ::chmod(path.c_str(), kOwnerOnly) == 0;
  }
  return true;
}

void removeDatabaseFiles(const std::string& path) {
  // The logs first: found beside an empty database they would be taken for its own.
  for (const char* suffix : {"-wal", "-journal", "-shm", ""}) {
    ::unlink((path + suffix).c_str());
  }
}

std::uint64_t databaseFileId(const std::string& path) {
  struct stat facts;
  return ::stat(path.c_str(), &facts) == 0 ? facts.st_ino : 0;
}

DatabaseReplacementLock::DatabaseReplacementLock(const std::string& databasePath)
    : _descriptor(::open(directoryOf(databasePath).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)) {
  for (int attempt = 0; _descriptor >= 0; ++attempt) {
    if (::flock(_descriptor, LOCK_EX | LOCK_NB) == 0) {
      return;
    }
    if (attempt == kLockAttempts) {
      ::close(_descriptor);
      _descriptor = -1;
      return;
    }
    Clock::system().sleepMilliseconds(kLockPauseMilliseconds, nullptr);
  }
}

DatabaseReplacementLock::~DatabaseReplacementLock() {
  if (_descriptor >= 0) {
    ::close(_descriptor);
  }
}

}  // namespace kovo
