// The download rows of SqliteResumeCache.
#include "cache/database_file.h"
#include "cache/sqlite_resume_cache.h"
#include "cache/sqlite_transaction.h"
#include "log/kovo_log.h"

namespace kovo {
namespace {

constexpr int kDeletionAttempts = 2;

// DownloadGeometry.synced
constexpr int kNotSynced = 0;
constexpr int kSynced = 1;
constexpr int kBeingSynced = 2;

// The commit of a transaction that must outlast a power cut.
class SynchronousCommits : boost::noncopyable {
 public:
  SynchronousCommits(SqliteConnection& connection, bool wanted)
      : _connection(connection), _wanted(wanted) {
    if (_wanted) {
      _connection.execute("PRAGMA synchronous=FULL");
    }
  }
  ~SynchronousCommits() {
    if (_wanted) {
      _connection.execute("PRAGMA synchronous=NORMAL");
    }
  }

 private:
  SqliteConnection& _connection;
  const bool _wanted;
};

int deleteRows(SqliteConnection& connection, const std::string& filePath) {
  SqliteTransaction transaction(connection);
  int result = transaction.begin();
  // The second looks at every row: a damaged index may not know them all, and one that comes to
  // light later would claim bytes that are gone.
  for (const char* sql : {"DELETE from DownloadChunkStatus where filePath = ?",
                          "DELETE FROM DownloadChunkStatus NOT INDEXED WHERE filePath = ?",
                          "DELETE FROM DownloadGeometry WHERE filePath = ?"}) {
    if (result == SQLITE_DONE) {
      result = connection.prepare(sql).bind(1, filePath).step();
    }
  }
  return result == SQLITE_DONE ? transaction.commit() : result;
}

}  // namespace

void SqliteResumeCache::storeDownloadedChunkDetails(const std::string& filePath,
                                                    const std::string& eTag,
                                                    std::uint64_t firstByte) {
  static constexpr char kOperation[] = "kovo::SqliteResumeCache::storeDownloadedChunkDetails";
  Session session(*this);
  const bool usable = isUsable();
  if (filePath.empty() || eTag.empty() || !usable) {
    KOVO_LOG(KOVO_LOG_ERROR, kOperation,
             "Constraints not passed: filepath %s, etag %s, isdatabasenotopened %d",
             filePath.c_str(), eTag.c_str(), !usable);
    return;
  }
  SqliteTransaction transaction(*_db);
  int result = transaction.begin();
  if (result == SQLITE_DONE) {
    result =
        _db->prepare("INSERT INTO DownloadChunkStatus(filePath, eTag, firstByte) VALUES (?, ?, ?)")
            .bind(1, filePath)
            .bind(2, eTag)
            .bind(3, static_cast<std::int64_t>(firstByte))
            .step();
  }
  if (result == SQLITE_DONE) {
    // The bytes of this chunk are not on the medium yet.
    result = _db->prepare(
                    "UPDATE DownloadGeometry SET synced = 0, bootId = ? WHERE filePath = ? AND "
                    "synced <> 0")
                 .bind(1, _bootId)
                 .bind(2, filePath)
                 .step();
  }
  if (result == SQLITE_DONE) {
    result = transaction.commit();
  }
  if (isSqliteSuccess(result)) {
    KOVO_LOG(KOVO_LOG_INFO, kOperation,
             "SQL success in storeData downloadChunkStatus for file %s: status %d",
             filePath.c_str(), result);
  } else {
    KOVO_LOG(KOVO_LOG_ERROR, kOperation,
             "SQL error in storeData downloadChunkStatus for file %s: status %d", filePath.c_str(),
             result);
  }
}

bool SqliteResumeCache::getFirstBytesDownlaodedChunks(const std::string& filePath,
                                                      const std::string& eTag,
                                                      std::set<std::uint64_t>& firstBytes) {
  static constexpr char kOperation[] = "kovo::SqliteResumeCache::getFirstBytesDownlaodedChunks";
  Session session(*this);
  const bool usable = isUsable();
  if (filePath.empty() || eTag.empty() || !usable) {
    KOVO_LOG(KOVO_LOG_ERROR, kOperation,
             "Constraints not passed: filepath %s, etag %s, isdatabasenotopened %d",
             filePath.c_str(), eTag.c_str(), !usable);
    return false;
  }
  std::int64_t modificationTime = 0;
  if (factsOf(filePath, modificationTime) != FileFacts::Present) {
    KOVO_LOG(KOVO_LOG_INFO, kOperation, "File missing at filepath: %s. Delete cache for filepath",
             filePath.c_str());
    deleteFromCacheDownload(filePath);
    return true;
  }
  if (dropDistrusted(filePath, kOperation)) {
    return true;
  }
  {
    SqliteStatement statement = _db->prepare(
        "SELECT id, firstByte from DownloadChunkStatus where filePath = ? and eTag = ?");
    statement.bind(1, filePath).bind(2, eTag);
    while (statement.step() == SQLITE_ROW) {
      firstBytes.insert(static_cast<std::uint64_t>(statement.integer(1)));
    }
  }
  if (firstBytes.empty()) {
    const int result = _db->prepare("SELECT id from DownloadChunkStatus where filePath = ?")
                           .bind(1, filePath)
                           .step();
    if (result == SQLITE_ROW) {
      KOVO_LOG(KOVO_LOG_INFO, kOperation,
               "File details missmatch for filepath: %s. Delete cache for filepath",
               filePath.c_str());
      deleteFromCacheDownload(filePath);
    }
  }
  return true;
}

bool SqliteResumeCache::isFilePartiallyDownloaded(const std::string& filePath) {
  static constexpr char kOperation[] = "kovo::SqliteResumeCache::isFilePartiallyDownloaded";
  Session session(*this);
  if (!hasConstraintsPassed(filePath, kOperation)) {
    return false;
  }
  if (_db->prepare("SELECT id from DownloadChunkStatus where filePath = ?")
          .bind(1, filePath)
          .step() != SQLITE_ROW) {
    return false;
  }
  std::int64_t modificationTime = 0;
  switch (factsOf(filePath, modificationTime)) {
    case FileFacts::Present:
      if (dropDistrusted(filePath, kOperation)) {
        return false;
      }
      KOVO_LOG(KOVO_LOG_INFO, kOperation, "File %s partially downloaded", filePath.c_str());
      return true;
    case FileFacts::Empty:
      KOVO_LOG(KOVO_LOG_INFO, kOperation,
               "File size is zero forg filepath: %s. Delete cache for filepath", filePath.c_str());
      break;
    case FileFacts::Missing:
      KOVO_LOG(KOVO_LOG_INFO, kOperation, "File missing at filepath: %s. Delete cache for filepath",
               filePath.c_str());
      break;
  }
  deleteFromCacheDownload(filePath);
  return false;
}

void SqliteResumeCache::deleteFromCacheDownload(const std::string& filePath) {
  static constexpr char kOperation[] = "kovo::SqliteResumeCache::deleteFromCacheDownload";
  Session session(*this);
  KOVO_LOG(KOVO_LOG_INFO, kOperation, "Delete from cache download for file %s", filePath.c_str());
  if (!hasConstraintsPassed(filePath, kOperation)) {
    return;
  }
  deleteDownloadRows(filePath);
}

void SqliteResumeCache::deleteDownloadRows(const std::string& filePath) {
  static constexpr char kOperation[] = "kovo::SqliteResumeCache::deleteFromCacheDownload";
  // As for uploads: mostly there is nothing, and a read is enough to know. When it fails, the
  // deletion is tried.
  bool isNeeded = true;
  bool isSynced = false;
  {
    SqliteStatement statement = _db->prepare(
        "SELECT EXISTS (SELECT 1 FROM DownloadChunkStatus WHERE filePath = ?1), (SELECT synced "
        "FROM DownloadGeometry WHERE filePath = ?1)");
    if (statement.bind(1, filePath).step() == SQLITE_ROW) {
      isSynced = statement.integer(1) == kSynced;
      isNeeded = statement.integer(0) != 0 || !statement.text(1).empty();
    }
  }
  int result = SQLITE_DONE;
  if (isNeeded) {
    // Rows that are trusted across a power cut must not come back after one: the file they speak
    // of is about to be emptied.
    SynchronousCommits synchronous(*_db, isSynced);
    for (int attempt = 0; attempt < kDeletionAttempts; ++attempt) {
      result = deleteRows(*_db, filePath);
      if (result != SQLITE_BUSY) {
        break;
      }
      _db->noteLockResult(SQLITE_OK);  // worth the whole wait once more
    }
  }
  if (isSqliteSuccess(result)) {
    KOVO_LOG(KOVO_LOG_INFO, kOperation,
             "Sql success in deleteing chunks for file %s::sqlite status %d", filePath.c_str(),
             result);
  } else {
    KOVO_LOG(KOVO_LOG_ERROR, kOperation,
             "Sql error in deleteing chunks for file %s::sqlite status %d", filePath.c_str(),
             result);
    // Left alone, the rows would claim bytes of a file that is about to be emptied.
    KOVO_LOG(KOVO_LOG_ERROR, kOperation, "%s is given up; nothing is recorded from now on",
             _dbPath.c_str());
    _db->closeAtOnce();
    _db.reset();
    removeDatabaseFiles(_dbPath);
  }
}

bool SqliteResumeCache::isDistrusted(const std::string& filePath) {
  SqliteStatement statement =
      _db->prepare("SELECT bootId, synced FROM DownloadGeometry WHERE filePath = ?");
  return statement.bind(1, filePath).step() == SQLITE_ROW && statement.integer(1) != kSynced &&
         statement.text(0) != _bootId;
}

bool SqliteResumeCache::dropDistrusted(const std::string& filePath, const char* operation) {
  if (!isDistrusted(filePath)) {
    return false;
  }
  KOVO_LOG(KOVO_LOG_WARN, operation,
           "The machine was restarted before the chunks of %s were known to be on the medium. "
           "Delete cache for filepath",
           filePath.c_str());
  deleteDownloadRows(filePath);
  return true;
}

void SqliteResumeCache::beginDownloadSync(const std::string& filePath) {
  changeSyncMark(filePath, kNotSynced, kBeingSynced, false,
                 "kovo::SqliteResumeCache::beginDownloadSync");
}

void SqliteResumeCache::markDownloadSynced(const std::string& filePath) {
  changeSyncMark(filePath, kBeingSynced, kSynced, true,
                 "kovo::SqliteResumeCache::markDownloadSynced");
}

void SqliteResumeCache::changeSyncMark(const std::string& filePath, int from, int to,
                                       bool isDurable, const char* operation) {
  Session session(*this);
  if (!hasConstraintsPassed(filePath, operation)) {
    return;
  }
  SynchronousCommits synchronous(*_db, isDurable);
  SqliteTransaction transaction(*_db);
  int result = transaction.begin();
  if (result == SQLITE_DONE) {
    result = _db->prepare(
                    "UPDATE DownloadGeometry SET synced = ? WHERE filePath = ? AND bootId = ? AND "
                    "synced = ?")
                 .bind(1, to)
                 .bind(2, filePath)
                 .bind(3, _bootId)
                 .bind(4, from)
                 .step();
  }
  if (result == SQLITE_DONE) {
    result = transaction.commit();
  }
  if (!isSqliteSuccess(result)) {
    KOVO_LOG(KOVO_LOG_ERROR, operation, "SQL error marking file %s: status %d", filePath.c_str(),
             result);
  }
}

void SqliteResumeCache::setDownloadGeometry(const std::string& filePath, const std::string& url,
                                            std::uint64_t rangeStart, std::uint64_t chunkSize,
                                            std::uint64_t totalLength) {
  static constexpr char kOperation[] = "kovo::SqliteResumeCache::setDownloadGeometry";
  Session session(*this);
  if (!hasConstraintsPassed(filePath, kOperation)) {
    return;
  }
  Geometry recorded;
  const bool isRecorded = readGeometry(filePath, recorded);
  const bool isSame =
      recorded.resource == digest(url) && recorded.rangeStart == rangeStart &&
      recorded.chunkSize == chunkSize &&
      (recorded.totalLength == totalLength || recorded.totalLength == 0 || totalLength == 0);
  if (isRecorded && (!isSame || isDistrusted(filePath))) {
    KOVO_LOG(KOVO_LOG_INFO, kOperation, "Chunks of file %s are cut anew", filePath.c_str());
    deleteDownloadRows(filePath);
    if (!_db) {
      return;
    }
  } else if (isRecorded && recorded.totalLength == totalLength) {
    return;
  }
  SqliteTransaction transaction(*_db);
  int result = transaction.begin();
  if (result == SQLITE_DONE) {
    // A mark that rows are on the medium stays, with the boot they were stored under.
    result = _db->prepare(
                    "INSERT INTO DownloadGeometry (filePath, resource, rangeStart, chunkSize, "
                    "totalLength, bootId, synced, updated) VALUES (?, ?, ?, ?, ?, ?, 0, ?) ON "
                    "CONFLICT (filePath) DO UPDATE SET totalLength = max(totalLength, "
                    "excluded.totalLength), updated = excluded.updated")
                 .bind(1, filePath)
                 .bind(2, digest(url))
                 .bind(3, static_cast<std::int64_t>(rangeStart))
                 .bind(4, static_cast<std::int64_t>(chunkSize))
                 .bind(5, static_cast<std::int64_t>(totalLength))
                 .bind(6, _bootId)
                 .bind(7, now())
                 .step();
  }
  if (result == SQLITE_DONE) {
    result = transaction.commit();
  }
  if (!isSqliteSuccess(result)) {
    KOVO_LOG(KOVO_LOG_ERROR, kOperation, "SQL error recording geometry for file %s: status %d",
             filePath.c_str(), result);
  }
}

bool SqliteResumeCache::findDownloadGeometry(const std::string& filePath, const std::string& url,
                                             std::uint64_t& rangeStart, std::uint64_t& chunkSize,
                                             std::uint64_t& totalLength) {
  Session session(*this);
  if (!hasConstraintsPassed(filePath, "kovo::SqliteResumeCache::findDownloadGeometry")) {
    return false;
  }
  Geometry recorded;
  if (!readGeometry(filePath, recorded) || recorded.resource != digest(url)) {
    return false;
  }
  rangeStart = recorded.rangeStart;
  chunkSize = recorded.chunkSize;
  totalLength = recorded.totalLength;
  return true;
}

bool SqliteResumeCache::readGeometry(const std::string& filePath, Geometry& geometry) {
  SqliteStatement statement = _db->prepare(
      "SELECT resource, rangeStart, chunkSize, totalLength FROM DownloadGeometry WHERE filePath = "
      "?");
  if (statement.bind(1, filePath).step() != SQLITE_ROW) {
    return false;
  }
  geometry.resource = statement.text(0);
  geometry.rangeStart = static_cast<std::uint64_t>(statement.integer(1));
  geometry.chunkSize = static_cast<std::uint64_t>(statement.integer(2));
  geometry.totalLength = static_cast<std::uint64_t>(statement.integer(3));
  return true;
}

}  // namespace kovo
