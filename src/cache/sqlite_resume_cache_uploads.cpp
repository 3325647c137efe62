// The upload rows of SqliteResumeCache.
#include <cerrno>
#include <cstdlib>
#include <limits>
#include <stdexcept>

#include "cache/sqlite_resume_cache.h"
#include "cache/sqlite_transaction.h"
#include "log/kovo_log.h"

namespace kovo {
namespace {

std::int32_t partNumberOf(const std::string& text) {
  errno = 0;
  char* end = nullptr;
  const long number = std::strtol(text.c_str(), &end, 10);
  if (end == text.c_str()) {
    throw std::invalid_argument("invalid stoi argument");
  }
  if (errno == ERANGE || number < std::numeric_limits<std::int32_t>::min() ||
      number > std::numeric_limits<std::int32_t>::max()) {
    throw std::out_of_range("stoi argument out of range");
  }
  return static_cast<std::int32_t>(number);
}

// Calls take(part number, row) for every row; the number is its first column.
template <typename Take>
void readParts(SqliteStatement statement, const std::string& filePath, const char* operation,
               const Take& take) {
  statement.bind(1, filePath);
  while (statement.step() == SQLITE_ROW) {
    try {
      take(partNumberOf(statement.text(0)), statement);
    } catch (const std::logic_error& error) {
      // One damaged row must not cost the transfer the others.
      KOVO_LOG(KOVO_LOG_ERROR, operation, "Part number not readable, row left out: %s",
               error.what());
    }
  }
}

bool isRecordedTarget(SqliteConnection& connection, const std::string& filePath,
                      const std::string& targetDigest) {
  SqliteStatement statement =
      connection.prepare("SELECT 1 FROM UploadTarget WHERE filePath = ? AND target = ?");
  return statement.bind(1, filePath).bind(2, targetDigest).step() == SQLITE_ROW;
}

}  // namespace

void SqliteResumeCache::insertResponse(const std::string& filePath, const std::string& response,
                                       const std::string& md5Sum, const std::string& target) {
  static constexpr char kOperation[] = "kovo::SqliteResumeCache::insertResponse";
  Session session(*this);
  const bool usable = isUsable();
  if (filePath.empty() || response.empty() || !usable) {
    KOVO_LOG(KOVO_LOG_ERROR, kOperation,
             "Constraints not passed: filepath %s, size of response %lu, md5Sum %s, "
             "isdatabasenotopened %d",
             filePath.c_str(), response.size(), md5Sum.c_str(), !usable);
    return;
  }
  SqliteTransaction transaction(*_db);
  int result = transaction.begin();
  if (result == SQLITE_DONE && !target.empty() &&
      !isRecordedTarget(*_db, filePath, digest(target))) {
    KOVO_LOG(KOVO_LOG_INFO, kOperation, "Another upload has taken over file %s", filePath.c_str());
    return;
  }
  if (result == SQLITE_DONE) {
    result = _db->prepare(
                    "INSERT INTO ResponseTable (filePath, response, timeUploaded, md5Sum) VALUES "
                    "(?, ?, ?, ?)")
                 .bind(1, filePath)
                 .bind(2, response)
                 .bind(3, now())
                 .bind(4, md5Sum)
                 .step();
  }
  if (result == SQLITE_DONE) {
    result = transaction.commit();
  }
  if (isSqliteSuccess(result)) {
    KOVO_LOG(KOVO_LOG_INFO, kOperation,
             "SQL success inserting response for file %s:sqlite status %d", filePath.c_str(),
             result);
  } else {
    KOVO_LOG(KOVO_LOG_ERROR, kOperation, "SQL error inserting response:sqlite status %d", result);
  }
}

void SqliteResumeCache::getResponse(const std::string& filePath, std::string& response) {
  static constexpr char kOperation[] = "kovo::SqliteResumeCache::getResponse";
  response.clear();
  Session session(*this);
  if (!hasConstraintsPassed(filePath, kOperation)) {
    return;
  }
  bool isOutdated = false;
  {
    SqliteStatement statement =
        _db->prepare("SELECT response from ResponseTable where filePath = ?");
    statement.bind(1, filePath);
    while (statement.step() == SQLITE_ROW) {
      response = statement.text(0);
      if (isExpired(now(), uploadedDate(filePath))) {
        KOVO_LOG(KOVO_LOG_INFO, kOperation, "Delete outdated SqliteResumeCache for file : %s",
                 filePath.c_str());
        response.clear();
        isOutdated = true;
      }
    }
  }
  if (isOutdated) {
    deleteFromCacheUpload(filePath);
  }
}

void SqliteResumeCache::getMd5Sum(const std::string& filePath, std::string& md5Sum) {
  md5Sum.clear();
  Session session(*this);
  if (!hasConstraintsPassed(filePath, "kovo::SqliteResumeCache::getMd5Sum")) {
    return;
  }
  SqliteStatement statement = _db->prepare("SELECT md5Sum from ResponseTable where filePath = ?");
  statement.bind(1, filePath);
  while (statement.step() == SQLITE_ROW) {
    md5Sum = statement.text(0);
  }
}

void SqliteResumeCache::getUploadedDate(const std::string& filePath, std::int64_t& uploaded) {
  uploaded = 0;
  Session session(*this);
  if (hasConstraintsPassed(filePath, "kovo::SqliteResumeCache::getUploadedDate")) {
    uploaded = uploadedDate(filePath);
  }
}

std::int64_t SqliteResumeCache::uploadedDate(const std::string& filePath) {
  std::int64_t uploaded = 0;
  SqliteStatement statement =
      _db->prepare("SELECT timeUploaded from ResponseTable where filePath = ?");
  statement.bind(1, filePath);
  while (statement.step() == SQLITE_ROW) {
    uploaded = statement.integer(0);
  }
  return uploaded;
}

void SqliteResumeCache::insertUploadedChunkEtag(const std::string& filePath,
                                                std::int32_t partNumber, const std::string& etag,
                                                const std::string& target) {
  static constexpr char kOperation[] = "kovo::SqliteResumeCache::insertUploadedChunkEtag";
  Session session(*this);
  const bool usable = isUsable();
  if (filePath.empty() || etag.empty() || !usable) {
    KOVO_LOG(KOVO_LOG_ERROR, kOperation,
             "Constraints not passed: filepath %s, partNumber %d, etag %s, isdatabasenotopened %d",
             filePath.c_str(), partNumber, etag.c_str(), !usable);
    return;
  }
  SqliteTransaction transaction(*_db);
  int result = transaction.begin();
  if (result == SQLITE_DONE && !target.empty() &&
      !isRecordedTarget(*_db, filePath, digest(target))) {
    KOVO_LOG(KOVO_LOG_INFO, kOperation, "Another upload has taken over file %s", filePath.c_str());
    return;
  }
  if (result == SQLITE_DONE) {
    result =
        _db->prepare("INSERT INTO UploadChunkStatus(filePath, chunkNumber, eTag) VALUES (?, ?, ?)")
            .bind(1, filePath)
            .bind(2, std::int64_t{partNumber})
            .bind(3, etag)
            .step();
  }
  if (result == SQLITE_DONE) {
    result = transaction.commit();
  }
  if (isSqliteSuccess(result)) {
    KOVO_LOG(KOVO_LOG_INFO, kOperation,
             "SQL success inserting etag %s for file %s :sqlite status %d", etag.c_str(),
             filePath.c_str(), result);
  } else {
    KOVO_LOG(KOVO_LOG_ERROR, kOperation, "SQL error inserting etag:sqlite status %d", result);
  }
}

void SqliteResumeCache::getUploadedChunksEtags(
    const std::string& filePath, std::vector<std::pair<std::int32_t, std::string>>& etags) {
  static constexpr char kOperation[] = "kovo::SqliteResumeCache::getUploadedChunksEtags";
  Session session(*this);
  if (!hasConstraintsPassed(filePath, kOperation)) {
    return;
  }
  readParts(_db->prepare("SELECT chunkNumber, eTag from UploadChunkStatus where filePath = ?"),
            filePath, kOperation, [&etags](std::int32_t partNumber, const SqliteStatement& row) {
              etags.emplace_back(partNumber, row.text(1));
            });
}

void SqliteResumeCache::getChunksUploaded(const std::string& filePath,
                                          std::set<std::int32_t>& partNumbers) {
  static constexpr char kOperation[] = "kovo::SqliteResumeCache::getChunksUploaded";
  Session session(*this);
  if (!hasConstraintsPassed(filePath, kOperation)) {
    return;
  }
  readParts(_db->prepare("SELECT chunkNumber from UploadChunkStatus where filePath = ?"), filePath,
            kOperation, [&partNumbers](std::int32_t partNumber, const SqliteStatement&) {
              partNumbers.insert(partNumber);
            });
}

void SqliteResumeCache::deleteFromCacheUpload(const std::string& filePath) {
  static constexpr char kOperation[] = "kovo::SqliteResumeCache::deleteFromCacheUpload";
  Session session(*this);
  KOVO_LOG(KOVO_LOG_INFO, kOperation, "Delete from cache upload for file %s", filePath.c_str());
  if (!hasConstraintsPassed(filePath, kOperation)) {
    return;
  }
  // Every upload asks for this, and hardly any has rows: a read finds that out without the lock
  // that writers of all processes share.
  int found = _db->prepare(
                     "SELECT 1 WHERE EXISTS (SELECT 1 FROM ResponseTable WHERE filePath = ?1) OR "
                     "EXISTS (SELECT 1 FROM UploadChunkStatus WHERE filePath = ?1) OR EXISTS "
                     "(SELECT 1 FROM UploadTarget WHERE filePath = ?1)")
                  .bind(1, filePath)
                  .step();
  int responseResult = SQLITE_DONE;
  int etagsResult = SQLITE_DONE;
  if (found != SQLITE_DONE) {
    SqliteTransaction transaction(*_db);
    responseResult = etagsResult = transaction.begin();
    if (responseResult == SQLITE_DONE) {
      responseResult =
          _db->prepare("DELETE from ResponseTable where filePath = ?").bind(1, filePath).step();
      etagsResult =
          _db->prepare("DELETE from UploadChunkStatus where filePath = ?").bind(1, filePath).step();
      _db->prepare("DELETE FROM UploadTarget WHERE filePath = ?").bind(1, filePath).step();
      const int committed = transaction.commit();
      if (!isSqliteSuccess(committed)) {
        responseResult = etagsResult = committed;
      }
    }
  }
  if (isSqliteSuccess(responseResult)) {
    KOVO_LOG(KOVO_LOG_INFO, kOperation,
             "Sql success in deleting response for file %s::sqlite status %d", filePath.c_str(),
             responseResult);
  } else {
    KOVO_LOG(KOVO_LOG_ERROR, kOperation,
             "Sql error in deleting response for file %s::sqlite status %d", filePath.c_str(),
             responseResult);
  }
  if (isSqliteSuccess(etagsResult)) {
    KOVO_LOG(KOVO_LOG_INFO, kOperation,
             "Sql success in deleteing Etags for file %s::sqlite status %d", filePath.c_str(),
             etagsResult);
  } else {
    KOVO_LOG(KOVO_LOG_ERROR, kOperation,
             "Sql error in deleteing Etags for file %s::sqlite status %d", filePath.c_str(),
             etagsResult);
  }
}

void SqliteResumeCache::setUploadTarget(const std::string& filePath, const std::string& target) {
  static constexpr char kOperation[] = "kovo::SqliteResumeCache::setUploadTarget";
  Session session(*this);
  if (!hasConstraintsPassed(filePath, kOperation)) {
    return;
  }
  SqliteTransaction transaction(*_db);
  int result = transaction.begin();
  if (result == SQLITE_DONE && !isRecordedTarget(*_db, filePath, digest(target))) {
    for (const char* sql : {"DELETE from ResponseTable where filePath = ?",
                            "DELETE from UploadChunkStatus where filePath = ?"}) {
      if (result == SQLITE_DONE) {
        result = _db->prepare(sql).bind(1, filePath).step();
      }
    }
  }
  if (result == SQLITE_DONE) {
    result = _db->prepare(
                    "INSERT OR REPLACE INTO UploadTarget (filePath, target, updated) VALUES (?, ?, "
                    "?)")
                 .bind(1, filePath)
                 .bind(2, digest(target))
                 .bind(3, now())
                 .step();
  }
  if (result == SQLITE_DONE) {
    result = transaction.commit();
  }
  if (!isSqliteSuccess(result)) {
    KOVO_LOG(KOVO_LOG_ERROR, kOperation, "SQL error recording target for file %s: status %d",
             filePath.c_str(), result);
  }
}

bool SqliteResumeCache::isUploadTarget(const std::string& filePath, const std::string& target) {
  Session session(*this);
  return hasConstraintsPassed(filePath, "kovo::SqliteResumeCache::isUploadTarget") &&
         isRecordedTarget(*_db, filePath, digest(target));
}

}  // namespace kovo
