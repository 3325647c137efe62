#include "platform/platform_file_stream.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <limits>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "core/assertion.h"
#include "log/kovo_log.h"

namespace kovo {
namespace {

constexpr std::size_t kLongestName = 255;
constexpr std::uint64_t kLargestOffset = std::numeric_limits<off_t>::max();
constexpr std::uint32_t kLastShareMode = 5;

bool isDirectory(const std::string& path) {
  struct stat facts;
  return ::stat(path.c_str(), &facts) == 0 && S_ISDIR(facts.st_mode);
}

std::string parentOf(const std::string& path) {
  const std::size_t slash = path.find_last_of('/');
  if (slash == std::string::npos) {
    return ".";
  }
  return slash == 0 ? "/" : path.substr(0, slash);
}

// What the name alone tells, without the file system; 0 or an errno value.
int nameFault(const std::string& path) {
  if (path.empty() || path.find('\0') != std::string::npos) {
    return EILSEQ;
  }
  const std::size_t slash = path.find_last_of('/');
  const std::size_t name = slash == std::string::npos ? 0 : slash + 1;
  return path.size() - name > kLongestName ? ENAMETOOLONG : 0;
}

// Opens path, or returns -1 and leaves the reason in errno. The descriptor is at a place of its own
// for every read and write, so pipes and sockets, which have none, are refused; and since opening a
// pipe may wait for its other end, the open itself never blocks.
int openFile(const std::string& path, int flags, bool& isRegular) {
  if (const int fault = nameFault(path); fault != 0) {
    errno = fault;
    return -1;
  }
  int descriptor = -1;
  do {
    descriptor = ::open(path.c_str(), flags | O_CLOEXEC | O_NOCTTY | O_NONBLOCK, 0666);
  } while (descriptor < 0 && errno == EINTR);
  if (descriptor < 0) {
    return -1;
  }
  struct stat facts;
  int fault = 0;
  if (::fstat(descriptor, &facts) != 0) {
    fault = errno;
  } else if (S_ISDIR(facts.st_mode)) {
    fault = EISDIR;
  } else if (!S_ISREG(facts.st_mode) && !S_ISBLK(facts.st_mode) && !S_ISCHR(facts.st_mode)) {
    fault = ESPIPE;
  }
  if (fault != 0) {
    ::close(descriptor);
    errno = fault;
    return -1;
  }
  isRegular = S_ISREG(facts.st_mode);
  return descriptor;
}

// openFile for a stream: errno tells the reason, and so does kind.
int openStream(const std::string& path, int flags, FileErrorKind& kind, bool& isRegular) {
  const int descriptor = openFile(path, flags, isRegular);
  kind = FileErrorKind::None;
  if (descriptor < 0) {
    const int errorNumber = errno;
    kind = fileErrorKind(errorNumber, path);
    errno = errorNumber;
  }
  return descriptor;
}

// How many of length bytes at position the process's file size limit leaves room for. Writing past
// the limit would raise SIGXFSZ, whose default ends the host.
std::uint64_t withinSizeLimit(std::uint64_t position, std::uint64_t length) {
  rlimit limit;
  if (::getrlimit(RLIMIT_FSIZE, &limit) != 0 || limit.rlim_cur == RLIM_INFINITY) {
    return length;
  }
  const std::uint64_t room = position < limit.rlim_cur ? limit.rlim_cur - position : 0;
  return std::min(room, length);
}

}  // namespace

FileErrorKind fileErrorKind(int errorNumber, const std::string& path) {
  switch (errorNumber) {
    case 0:
      return FileErrorKind::None;
    case EBADF:
      return FileErrorKind::BadHandle;
    case ENOSPC:
    case EDQUOT:
    case EFBIG:
      return FileErrorKind::DiskFull;  // larger than the file system or a limit lets it
    case ETXTBSY:
    case EWOULDBLOCK:
      return FileErrorKind::Locked;
    case EILSEQ:
    case EISDIR:
      return FileErrorKind::InvalidName;
    case ENOENT:
      return isDirectory(parentOf(path)) ? FileErrorKind::NotFound : FileErrorKind::ParentMissing;
    case ENOTDIR:
      return FileErrorKind::ParentMissing;
    case EACCES:
    case EPERM:
    case EROFS:
      return FileErrorKind::AccessDenied;
    case ENAMETOOLONG:
      return FileErrorKind::PathTooLong;
    case EINVAL:
      return FileErrorKind::InvalidParameter;
    default:
      return FileErrorKind::Other;
  }
}

PlatformFileIStream::~PlatformFileIStream() {
  if (_descriptor >= 0) {
    ::close(_descriptor);
  }
}

bool PlatformFileIStream::open(const std::string& path, std::uint32_t shareMode) {
  // Sharing is not enforced: a lock would bind only programs that ask for it, and make two
  // transfers of one file fail.
  KOVO_ASSERT(shareMode <= kLastShareMode, "false && \"Unrecognised share mode!\"");
  static_cast<void>(shareMode);
  if (_descriptor >= 0) {
    ::close(std::exchange(_descriptor, -1));
  }
  _path = path;
  _position = 0;
  bool isRegular = false;
  _descriptor = openStream(path, O_RDONLY, lastErrorKind, isRegular);
  return _descriptor >= 0;
}

std::uint64_t PlatformFileIStream::Length() const {
  struct stat facts;
  if (_descriptor < 0 || ::fstat(_descriptor, &facts) != 0) {
    return 0;
  }
  return static_cast<std::uint64_t>(facts.st_size);
}

void PlatformFileIStream::Seek(std::uint64_t offset) {
  if (_descriptor < 0 || offset > kLargestOffset) {
    throw std::system_error(_descriptor < 0 ? EBADF : EINVAL, std::generic_category(),
                            "PlatformFileIStream::Seek");
  }
  _position = offset;
}

bool PlatformFileIStream::ReadBlock(std::uint8_t* buffer, std::uint64_t maxLength,
                                    std::uint64_t* bytesRead) {
  *bytesRead = 0;
  if (_descriptor < 0) {
    lastErrorKind = FileErrorKind::BadHandle;
    errno = EBADF;
    return false;
  }
  lastErrorKind = FileErrorKind::None;
  while (*bytesRead < maxLength) {
    const ssize_t count = ::pread(_descriptor, buffer + *bytesRead, maxLength - *bytesRead,
                                  static_cast<off_t>(_position));
    if (count == 0) {
      break;
    }
    if (count < 0) {
      const int errorNumber = errno;
      if (errorNumber == EINTR) {
        continue;
      }
      if (*bytesRead > 0) {
        break;  // what was read counts; the next call meets the failure again
      }
      lastErrorKind = fileErrorKind(errorNumber, _path);
      errno = errorNumber;
      return false;
    }
    *bytesRead += static_cast<std::uint64_t>(count);
    _position += static_cast<std::uint64_t>(count);
  }
  return true;
}

PlatformFileOStream::~PlatformFileOStream() {
  close();
}

bool PlatformFileOStream::open(const std::string& path, std::uint32_t createMode) {
  int flags = O_WRONLY;
  switch (createMode) {
    case OpenOrCreate:
      flags |= O_CREAT;
      break;
    case CreateReplacing:
      flags |= O_CREAT | O_TRUNC;
      break;
    case OpenExisting:
      break;
    case ReplaceExisting:
      flags |= O_TRUNC;
      break;
    default:
      throw std::invalid_argument("PlatformFileOStream: bad input: createMode: " +
                                  std::to_string(static_cast<std::int32_t>(createMode)));
  }
  close();
  _path = path;
  _position = 0;
  _descriptor = openStream(path, flags, lastErrorKind, _isRegularFile);
  return _descriptor >= 0;
}

bool PlatformFileOStream::WriteBlock(const std::uint8_t* data, std::uint64_t length) {
  if (_descriptor < 0) {
    KOVO_LOG(KOVO_LOG_ERROR, "kovo::PlatformFileOStream::WriteBlock",
             "PlatformFileOStream::WriteBlock: Invalid stream");
    lastErrorKind = FileErrorKind::BadHandle;
    errno = EBADF;
    return false;
  }
  lastErrorKind = FileErrorKind::None;
  while (length > 0) {
    const std::uint64_t allowed = withinSizeLimit(_position, length);
    ssize_t count = -1;
    if (allowed == 0) {
      errno = EFBIG;
    } else {
      count = ::pwrite(_descriptor, data, allowed, static_cast<off_t>(_position));
      if (count == 0) {
        count = -1;
        errno = ENOSPC;
      }
    }
    if (count < 0) {
      const int errorNumber = errno;
      if (errorNumber == EINTR) {
        continue;
      }
      lastErrorKind = fileErrorKind(errorNumber, _path);
      errno = errorNumber;
      return false;
    }
    data += count;
    length -= static_cast<std::uint64_t>(count);
    _position += static_cast<std::uint64_t>(count);
  }
  return true;
}

bool PlatformFileOStream::SetCurrentPosition(std::uint64_t offset) {
  if (_descriptor < 0) {
    KOVO_LOG(KOVO_LOG_ERROR, "kovo::PlatformFileOStream::SetCurrentPosition",
             "PlatformFileOStream::SetCurrentPosition: Invalid stream");
    lastErrorKind = FileErrorKind::BadHandle;
    errno = EBADF;
    return false;
  }
  if (offset > kLargestOffset) {
    lastErrorKind = FileErrorKind::InvalidParameter;
    errno = EINVAL;
    return false;
  }
  lastErrorKind = FileErrorKind::None;
  _position = offset;
  return true;
}

bool PlatformFileOStream::Flush() {
  if (_descriptor < 0) {
    lastErrorKind = FileErrorKind::BadHandle;
    errno = EBADF;
    return false;
  }
  int result = 0;
  do {
    result = ::fdatasync(_descriptor);
  } while (result != 0 && errno == EINTR);
  // EINVAL: a device without anything to wait for.
  if (result != 0 && errno != EINVAL) {
    const int errorNumber = errno;
    lastErrorKind = fileErrorKind(errorNumber, _path);
    errno = errorNumber;
    return false;
  }
  lastErrorKind = FileErrorKind::None;
  return true;
}

void PlatformFileOStream::close() {
  // Not repeated after EINTR: the descriptor is gone by then.
  if (_descriptor >= 0 && ::close(std::exchange(_descriptor, -1)) != 0 && errno != EINTR) {
    const int errorNumber = errno;
    lastErrorKind = fileErrorKind(errorNumber, _path);
    errno = errorNumber;
  }
}

}  // namespace kovo
