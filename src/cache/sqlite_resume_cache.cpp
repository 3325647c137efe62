#include "cache/sqlite_resume_cache.h"

#include <fstream>
#include <unordered_map>
#include <utility>

#include "cache/resume_database.h"
#include "cache/sqlite_transaction.h"
#include "core/kovo_error.h"
#include "log/kovo_log.h"
#include "platform/kovo_utils.h"

namespace kovo {
namespace {

constexpr char kDatabaseName[] = "sqliteResumeTransfer";
constexpr char kConstructor[] = "kovo::SqliteResumeCache::SqliteResumeCache";

// Steps of a scan that may fail in a row before it is given up.
constexpr int kMostStepFailures = 5;

// Empty where the system does not tell: rows then count as of one and the same boot.
std::string currentBootId() {
  std::ifstream file("/proc/sys/kernel/random/boot_id");
  std::string id;
  std::getline(file, id);
  return id;
}

}  // namespace

SqliteResumeCache::SqliteResumeCache(const char* baseDirectory)
    : SqliteResumeCache(baseDirectory, Clock::system(), currentBootId()) {}

SqliteResumeCache::SqliteResumeCache(const char* baseDirectory, Clock& clock,
                                     const std::string& bootId)
    : _clock(clock), _bootId(bootId) {
  if (baseDirectory == nullptr) {
    KOVO_LOG(KOVO_LOG_ERROR, kConstructor,
             "SqliteResumeCache::SqliteResumeCache basdirectory is null");
    return;
  }
  _dbPath = std::string(baseDirectory) + "/" + kDatabaseName + ".db";
  _db = openResumeDatabase(_dbPath);
  if (!_db) {
    KOVO_LOG(KOVO_LOG_ERROR, kConstructor,
             "SqliteResumeCache::SqliteResumeCache Can't open database");
    return;
  }
  _lastClearedTime = now();
  clearOutdatedCache();
  if (!isOpened()) {
    return;
  }
  KOVO_LOG(KOVO_LOG_WARN, kConstructor,
           "SqliteResumeCache::SqliteResumeCache sqliteResumeTransfer.db successfully opened");
}

SqliteResumeCache::~SqliteResumeCache() {
  ScopedLock lock(_lock);
  if (_db) {
    KOVO_LOG(KOVO_LOG_INFO, "kovo::SqliteResumeCache::~SqliteResumeCache",
             "SqliteResumeCache::SqliteResumeCache sqliteResumeTransfer.db handle closing");
    _db.reset();
  }
}

std::int64_t SqliteResumeCache::now() const {
  return _clock.nowMilliseconds() / 1000;
}

bool SqliteResumeCache::isOpened() const {
  ScopedLock lock(_lock);
  return _db != nullptr;
}

SqliteResumeCache::Session::Session(SqliteResumeCache& cache) : _cache(cache) {
  _cache._lock.lock();
}

SqliteResumeCache::Session::~Session() {
  _cache._lock.unlock();
}

// Ends the use of a database that was removed or replaced by others: what is written to it would
// be lost. Not to be called while a statement is out.
bool SqliteResumeCache::isUsable() {
  if (_db && _db->hasMoved()) {
    KOVO_LOG(KOVO_LOG_ERROR, "kovo::SqliteResumeCache::isUsable",
             "%s was removed; nothing is recorded from now on", _dbPath.c_str());
    _db->closeAtOnce();
    _db.reset();
  }
  return _db != nullptr;
}

std::string SqliteResumeCache::digest(const std::string& text) {
  return WinKOVOUtils::getMD5ChecksumOfText(text);
}

SqliteResumeCache::FileFacts SqliteResumeCache::factsOf(const std::string& path,
                                                        std::int64_t& modificationTime) {
  std::uint64_t size = 0;
  std::shared_ptr<KovoError> error;
  if (!getFileStat(path, size, modificationTime, error)) {
    return FileFacts::Missing;
  }
  return size == 0 ? FileFacts::Empty : FileFacts::Present;
}

bool SqliteResumeCache::hasConstraintsPassed(const std::string& filePath, const char* operation) {
  const bool usable = isUsable();
  if (filePath.empty() || !usable) {
    KOVO_LOG(KOVO_LOG_ERROR, operation,
             "Constraints not passed: filepath %s, isdatabasenotopened %d", filePath.c_str(),
             !usable);
    return false;
  }
  return true;
}

bool SqliteResumeCache::isExpired(std::int64_t now, std::int64_t then) {
  return then <= now - _expirySeconds;
}

void SqliteResumeCache::clearOutdatedCacheTimer() {
  const std::int64_t present = now();
  Session session(*this);
  if (!isExpired(present, _lastClearedTime)) {
    return;
  }
  KOVO_LOG(KOVO_LOG_INFO, "kovo::SqliteResumeCache::clearOutdatedCacheTimer",
           "SqliteResumeCache::clearOutdatedCacheTimer timeStampPresent: %ld, lastClearedTime : "
           "%ld",
           present, _lastClearedTime);
  _lastClearedTime = present;
  clearOutdatedCache();
}

void SqliteResumeCache::clearOutdatedCache() {
  static constexpr char kOperation[] = "kovo::SqliteResumeCache::clearOutdatedCache";
  Session session(*this);
  KOVO_LOG(KOVO_LOG_WARN, kOperation,
           "SqliteResumeCache::clearOutdatedCache deleting outdated cache");
  if (!isUsable()) {
    KOVO_LOG(KOVO_LOG_ERROR, kOperation, "Constraints not passed: isdatabasenotopened %d", 1);
    return;
  }
  const std::int64_t present = now();
  // A deletion may end the use of the database.
  clearOutdatedUploads(present);
  if (_db) {
    clearOutdatedDownloads(present);
  }
  if (_db) {
    clearOutdatedSideRows(present);
  }
}

void SqliteResumeCache::clearOutdatedUploads(std::int64_t now) {
  std::set<std::string> outdated;
  {
    SqliteStatement statement = _db->prepare("SELECT filePath, timeUploaded from ResponseTable");
    while (statement.step() == SQLITE_ROW) {
      const std::int64_t uploaded = statement.integer(1);
      if (isExpired(now, uploaded)) {
        const std::string filePath = statement.text(0);
        KOVO_LOG(KOVO_LOG_INFO, "kovo::SqliteResumeCache::clearOutdatedCache",
                 "SqliteResumeCache::clearOutdatedCache Delete outdated SqliteResumeCache for "
                 "file : %s, timeStampPresent: %ld, timeUploadedRow: %ld",
                 filePath.c_str(), now, uploaded);
        outdated.insert(filePath);
      }
    }
  }
  for (const std::string& filePath : outdated) {
    deleteFromCacheUpload(filePath);
  }
}

void SqliteResumeCache::clearOutdatedDownloads(std::int64_t now) {
  static constexpr char kOperation[] = "kovo::SqliteResumeCache::clearOutdatedCache";
  std::unordered_map<std::string, bool> isOutdated;  // each file is looked at once
  {
    SqliteStatement statement = _db->prepare("SELECT filePath from DownloadChunkStatus");
    int failures = 0;
    for (int result = statement.step();
         result != SQLITE_DONE && result != SQLITE_ERROR && failures < kMostStepFailures;
         result = statement.step()) {
      if (result != SQLITE_ROW) {
        ++failures;
        continue;
      }
      const std::string filePath = statement.text(0);
      const auto [entry, isFirst] = isOutdated.try_emplace(filePath, false);
      if (!isFirst) {
        continue;
      }
      std::int64_t modificationTime = 0;
      if (factsOf(filePath, modificationTime) == FileFacts::Missing) {
        KOVO_LOG(KOVO_LOG_INFO, kOperation,
                 "SqliteResumeCache::clearOutdatedCache Delete outdated SqliteResumeCache for "
                 "file : %s because of failed to get modification time",
                 filePath.c_str());
        entry->second = true;
      } else if (isExpired(now, modificationTime)) {
        KOVO_LOG(KOVO_LOG_INFO, kOperation,
                 "SqliteResumeCache::clearOutdatedCache Delete outdated SqliteResumeCache for "
                 "file : %s, timeStampPresent: %ld, timeLastUsedRow: %ld",
                 filePath.c_str(), now, modificationTime);
        entry->second = true;
      }
    }
  }
  for (const auto& [filePath, outdated] : isOutdated) {
    if (outdated) {
      deleteFromCacheDownload(filePath);
    }
  }
}

// A transfer that ended before its first row leaves its side row behind.
void SqliteResumeCache::clearOutdatedSideRows(std::int64_t now) {
  static constexpr struct {
    const char* find;
    const char* remove;
  } kOrphans[] = {
      {"SELECT 1 FROM DownloadGeometry WHERE updated <= ? AND filePath NOT IN (SELECT filePath "
       "FROM DownloadChunkStatus)",
       "DELETE FROM DownloadGeometry WHERE updated <= ? AND filePath NOT IN (SELECT filePath FROM "
       "DownloadChunkStatus)"},
      {"SELECT 1 FROM UploadTarget WHERE updated <= ? AND filePath NOT IN (SELECT filePath FROM "
       "ResponseTable UNION SELECT filePath FROM UploadChunkStatus)",
       "DELETE FROM UploadTarget WHERE updated <= ? AND filePath NOT IN (SELECT filePath FROM "
       "ResponseTable UNION SELECT filePath FROM UploadChunkStatus)"}};
  const std::int64_t oldest = now - _expirySeconds;
  for (const auto& orphans : kOrphans) {
    if (_db->prepare(orphans.find).bind(1, oldest).step() != SQLITE_ROW) {
      continue;
    }
    SqliteTransaction transaction(*_db);
    if (transaction.begin() == SQLITE_DONE &&
        _db->prepare(orphans.remove).bind(1, oldest).step() == SQLITE_DONE) {
      transaction.commit();
    }
  }
}

}  // namespace kovo
