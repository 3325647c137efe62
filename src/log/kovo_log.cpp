#include "log/kovo_log.h"

#include <cxxabi.h>
#include <dirent.h>
#include <fcntl.h>
#include <fnmatch.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <limits>
#include <memory>
#include <utility>

#include "core/lock.h"
#include "log/deferred_log.h"
#include "log/format_message.h"

namespace kovo {
namespace {

constexpr char kLogName[] = "kovo";
constexpr char kSeparator[] = "/";
constexpr std::uint32_t kDefaultLevel = KOVO_LOG_WARN;
constexpr std::uint32_t kNoLevel = 8;
constexpr std::uint32_t kDefaultRetainDays = 3;
constexpr std::size_t kLongestCallbackMessage = 2047;
constexpr std::size_t kOptionsBlockSize = 1024;

// The level in force, for the test that every call site makes; written under the logger's lock.
std::atomic<std::uint32_t> levelInForce{kDefaultLevel};

struct Logger {
  RecursiveLock logLock;
  std::string logDirectory KOVO_GUARDED_BY(logLock) = ".";
  std::string logName KOVO_GUARDED_BY(logLock) = kLogName;
  std::string currentFileName KOVO_GUARDED_BY(logLock);
  bool reopenPending KOVO_GUARDED_BY(logLock) = true;
  int currentDay KOVO_GUARDED_BY(logLock) = -1;
  int logFile KOVO_GUARDED_BY(logLock) = -1;
  kovo_logging_callback loggingCallback KOVO_GUARDED_BY(logLock) = nullptr;
  void* loggingContext KOVO_GUARDED_BY(logLock) = nullptr;
  std::uint32_t retainDays KOVO_GUARDED_BY(logLock) = kDefaultRetainDays;
  int initCount KOVO_GUARDED_BY(logLock) = 0;

  void setLevel(std::uint32_t level) KOVO_REQUIRES(logLock) {
    levelInForce.store(level, std::memory_order_relaxed);
  }
  void closeFile() KOVO_REQUIRES(logLock);
  void openFile() KOVO_REQUIRES(logLock);
  void deleteOldFiles(std::int64_t now) const KOVO_REQUIRES(logLock);
  void rotateIfNeeded(std::int64_t now, const std::tm& local) KOVO_REQUIRES(logLock);
  void writeLine(std::uint32_t level, const char* format, std::va_list arguments)
      KOVO_REQUIRES(logLock);
};

// Never destroyed: threads may log while static objects go.
Logger& logger() {
  static Logger* instance = new Logger;
  return *instance;
}

// A message of several lines, which may be somebody else's words, cannot be taken for several
// messages: only their first lines begin at the margin.
std::string indented(const std::string& message) {
  std::string result;
  result.reserve(message.size());
  for (const char c : message) {
    result += c;
    if (c == '\n') {
      result += '\t';
    }
  }
  return result;
}

void writeAll(int descriptor, const char* data, std::size_t size) {
  while (size > 0) {
    const ssize_t written = ::write(descriptor, data, size);
    if (written < 0) {
      if (errno == EINTR) {
        continue;
      }
      return;
    }
    data += written;
    size -= static_cast<std::size_t>(written);
  }
}

// Seconds since 1970 of the file's birth or last modification, whichever is earlier: a copied or
// restored file has a late birth, and not every file system records one.
bool creationTime(int directory, const char* name, std::int64_t& seconds) {
  struct statx facts;
  if (::statx(directory, name, AT_SYMLINK_NOFOLLOW, STATX_TYPE | STATX_MTIME | STATX_BTIME,
              &facts) != 0 ||
      !S_ISREG(facts.stx_mode)) {
    return false;
  }
  seconds = facts.stx_mtime.tv_sec;
  if ((facts.stx_mask & STATX_BTIME) != 0) {
    seconds = std::min<std::int64_t>(seconds, facts.stx_btime.tv_sec);
  }
  return true;
}

std::int64_t ageInDays(std::int64_t created, std::int64_t now) {
  constexpr std::int64_t kDay = 86400;
  return created >= now ? 0 : (now - created + kDay - 1) / kDay;
}

// Reads key's number from a block of the options file. One block holds one setting: only its first
// "=" counts.
bool parseOption(const std::string& block, const char* key, std::uint32_t& value) {
  const std::size_t keyAt = block.find(key);
  const std::size_t equalsAt = block.find('=');
  if (keyAt == std::string::npos || equalsAt == std::string::npos || equalsAt + 1 == block.size() ||
      keyAt >= equalsAt) {
    return false;
  }
  std::size_t at = block.find_first_not_of(" \t\n\v\f\r", equalsAt + 1);
  std::uint64_t number = 0;
  for (; at < block.size() && block[at] >= '0' && block[at] <= '9'; ++at) {
    number = std::min<std::uint64_t>(number * 10 + static_cast<std::uint64_t>(block[at] - '0'),
                                     std::numeric_limits<std::uint32_t>::max());
  }
  value = static_cast<std::uint32_t>(number);
  return true;
}

void readOptions(const std::string& directory, std::uint32_t& level, std::uint32_t& retain) {
  if (directory.empty()) {
    return;
  }
  const std::string path = directory + kSeparator + "KovoLogOptions.txt";
  std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::fopen(path.c_str(), "re"),
                                                       [](std::FILE* f) { return std::fclose(f); });
  if (file == nullptr) {
    return;
  }
  for (;;) {
    char buffer[kOptionsBlockSize + 1] = {};
    if (std::fread(buffer, 1, kOptionsBlockSize, file.get()) == 0) {
      return;
    }
    const std::string block(buffer);
    if (!parseOption(block, "level", level) && !parseOption(block, "retain", retain)) {
      return;
    }
  }
}

void Logger::closeFile() {
  if (logFile >= 0) {
    ::close(logFile);
    logFile = -1;
  }
}

void Logger::openFile() {
  if (logDirectory.empty() || currentFileName.empty()) {
    return;
  }
  // Messages name URLs and paths, so nobody but the owner may read them; and before the first
  // engine the directory is the working directory, where a link may be anybody's.
  logFile = ::open(currentFileName.c_str(),
                   O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, 0600);
  struct stat facts;
  const bool isPrivate = logFile >= 0 && ::fstat(logFile, &facts) == 0 && S_ISREG(facts.st_mode) &&
                         facts.st_nlink == 1 &&
                         (::fchmod(logFile, 0600) == 0 || facts.st_uid == ::geteuid());
  if (!isPrivate) {
    closeFile();
  }
}

void Logger::deleteOldFiles(std::int64_t now) const {
  if (logDirectory.empty() || logName.empty()) {
    return;
  }
  std::unique_ptr<DIR, int (*)(DIR*)> directory(::opendir(logDirectory.c_str()),
                                                [](DIR* d) { return ::closedir(d); });
  if (directory == nullptr) {
    return;
  }
  const std::string pattern = logName + "-*-*-*.log";
  const int descriptor = ::dirfd(directory.get());
  while (const dirent* entry = ::readdir(directory.get())) {
    std::int64_t created = 0;
    if (::fnmatch(pattern.c_str(), entry->d_name, 0) == 0 &&
        creationTime(descriptor, entry->d_name, created) &&
        ageInDays(created, now) > static_cast<std::int64_t>(retainDays)) {
      ::unlinkat(descriptor, entry->d_name, 0);
    }
  }
}

void Logger::rotateIfNeeded(std::int64_t now, const std::tm& local) {
  if (!reopenPending && local.tm_yday == currentDay) {
    return;
  }
  closeFile();
  deleteOldFiles(now);
  char date[48];
  std::snprintf(date, sizeof date, "-%04d-%02d-%02d.log", local.tm_year + 1900, local.tm_mon + 1,
                local.tm_mday);
  currentFileName = logName.empty() ? std::string() : logDirectory + kSeparator + logName + date;
  currentDay = local.tm_yday;
  openFile();
  reopenPending = false;
}

void Logger::writeLine(std::uint32_t level, const char* format, std::va_list arguments) {
  timeval now{};
  ::gettimeofday(&now, nullptr);
  std::tm local{};
  ::localtime_r(&now.tv_sec, &local);
  rotateIfNeeded(now.tv_sec, local);
  if (logFile < 0) {
    return;
  }
  char stamp[64];
  std::snprintf(stamp, sizeof stamp, "%02u:%02u:%02u:%03u [%s]\t",
                static_cast<unsigned>(local.tm_hour), static_cast<unsigned>(local.tm_min),
                static_cast<unsigned>(local.tm_sec), static_cast<unsigned>(now.tv_usec / 1000),
                levelName(level));
  // One write per line: another process that logs to the same file does not tear it.
  const std::string line = stamp + indented(formatMessage(format, arguments)) + "\n";
  writeAll(logFile, line.data(), line.size());
}

thread_local bool inLoggingCallback = false;

void callBack(kovo_logging_callback callback, void* context, const char* function, const char* file,
              std::uint32_t line, std::uint32_t level, const char* format, std::va_list arguments) {
  std::string message = formatMessage(format, arguments);
  message.resize(std::min(message.size(), kLongestCallbackMessage));
  struct Scope {
    const bool outer = std::exchange(inLoggingCallback, true);
    ~Scope() { inLoggingCallback = outer; }
  } const scope;
  callback(level, message.c_str(), function, file, line, context);
}

void logArguments(const char* function, const char* file, std::uint32_t line, std::uint32_t level,
                  const char* format, std::va_list arguments) {
  Logger& log = logger();
  kovo_logging_callback callback = nullptr;
  void* context = nullptr;
  {
    ScopedLock guard(log.logLock);
    callback = log.loggingCallback;
    context = log.loggingContext;
    if (callback == nullptr) {
      log.writeLine(level, format, arguments);
      return;
    }
  }
  callBack(callback, context, function, file, line, level, format, arguments);
}

}  // namespace

void kovoLog(const char* function, const char* file, std::uint32_t line, std::uint32_t level,
             const char* format, ...) {
  const int errorNumber = errno;
  std::va_list arguments;
  va_start(arguments, format);
  try {
    if (!DeferredLog::keep(function, file, line, level, format, arguments)) {
      logArguments(function, file, line, level, format, arguments);
    }
  } catch (abi::__forced_unwind&) {
    va_end(arguments);
    throw;  // the thread is being cancelled
  } catch (...) {
    // Thrown by the client's callback or for want of memory: there is nowhere to report it.
  }
  va_end(arguments);
  errno = errorNumber;
}

bool isLogLevelEnabled(std::uint32_t level) noexcept {
  if (level == KOVO_LOG_ALWAYS) {
    return true;
  }
  const std::uint32_t inForce = levelInForce.load(std::memory_order_relaxed);
  return level <= inForce && inForce <= KOVO_LOG_TRACE;
}

void kovoInitLog(const char* directory) {
  const std::string logDirectory = directory == nullptr ? "" : directory;
  Logger& log = logger();
  bool first = false;
  {
    ScopedLock guard(log.logLock);
    first = log.initCount++ < 1;
  }
  if (!first) {
    KOVO_LOG(KOVO_LOG_WARN, "kovo::kovoInitLog",
             "Ignoring attempt to reinit logging to %s%s%s at level %d retaining %d days of logs",
             logDirectory.c_str(), kSeparator, kLogName, static_cast<int>(kDefaultLevel),
             static_cast<int>(kDefaultRetainDays));
    return;
  }
  std::uint32_t level = kNoLevel;
  std::uint32_t retain = kDefaultRetainDays;
  readOptions(logDirectory, level, retain);
  {
    ScopedLock guard(log.logLock);
    log.setLevel(level < kNoLevel ? level : kDefaultLevel);
    log.logDirectory = logDirectory;
    log.logName = kLogName;
    log.reopenPending = true;
    log.retainDays = retain;
  }
  KOVO_LOG(KOVO_LOG_ALWAYS, "kovo::kovoInitLog", "KOVO Logging Started");
}

bool kovoDeinitLog() {
  Logger& log = logger();
  ScopedLock guard(log.logLock);
  if (--log.initCount > 0) {
    return false;
  }
  log.initCount = 0;
  log.closeFile();
  log.loggingCallback = nullptr;
  log.loggingContext = nullptr;
  return true;
}

void setLogLevel(std::uint32_t level) {
  Logger& log = logger();
  ScopedLock guard(log.logLock);
  log.setLevel(std::min<std::uint32_t>(level, KOVO_LOG_NONE));
}

std::uint32_t getLogLevel() {
  return levelInForce.load(std::memory_order_relaxed);
}

void registerLoggingCallback(kovo_logging_callback callback, void* loggingContext) {
  Logger& log = logger();
  ScopedLock guard(log.logLock);
  log.loggingCallback = callback;
  log.loggingContext = loggingContext;
}

bool isInLoggingCallback() noexcept {
  return inLoggingCallback;
}

const char* levelName(std::uint32_t level) {
  switch (level) {
    case KOVO_LOG_ALWAYS:
      return "ALWAYS";
    case KOVO_LOG_CRITICAL:
      return "CRITICAL";
    case KOVO_LOG_ERROR:
      return "ERROR";
    case KOVO_LOG_WARN:
      return "WARN";
    case KOVO_LOG_INFO:
      return "INFO";
    case KOVO_LOG_DEBUG:
      return "DEBUG";
    case KOVO_LOG_TRACE:
      return "TRACE";
    case KOVO_LOG_NONE:
      return "NONE";
    default:
      return "UNDEFINED";
  }
}

}  // namespace kovo
