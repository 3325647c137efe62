#pragma once

#include <boost/noncopyable.hpp>
#include <cstdint>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "core/lock.h"
#include "log/deferred_log.h"
#include "platform/clock.h"

namespace kovo {

class SqliteConnection;

// The record of partially transferred files, in "sqliteResumeTransfer.db" of the base directory.
// Thread-safe. A failure is logged and otherwise ignored: the transfer then fetches or sends again.
// Any number of engines and processes may use one base directory. The database and the files beside
// it are readable by their owner alone.
//
// What a download row promises, and what the caller does for it:
//  1. setDownloadGeometry before the first row of a path, then a row only after the chunk's bytes
//     are written to the file, and deleteFromCacheDownload before the file is emptied or replaced.
//  2. After a crash or SIGKILL of the process every row stored so far holds: a row is handed to the
//     kernel before storeDownloadedChunkDetails returns, after the bytes it speaks of.
//  3. After a power cut neither the file's bytes nor the rows need have reached the disk, and rows
//     may have done so without their bytes. Rows are therefore tied to the boot of the machine they
//     were stored under and ignored (deleted) under another one, unless the path was marked as
//     synced: beginDownloadSync, then an fdatasync of the file, then markDownloadSynced. A row
//     stored after the first of these ends the mark, or keeps it from being made.
class SqliteResumeCache : boost::noncopyable {
 public:
  // baseDirectory may be null: the cache is then not opened.
  explicit SqliteResumeCache(const char* baseDirectory);
  // As above with the time and the identity of the machine's current boot given (tests).
  SqliteResumeCache(const char* baseDirectory, Clock& clock, const std::string& bootId);
  ~SqliteResumeCache();

  bool isOpened() const;

  // --- Uploads: the stored initialisation answer and the parts already sent ---------------------
  // With a target, an insertion takes place only while that is the path's recorded target: an
  // upload whose path another one has taken over does not mix its rows with the other's.
  void insertResponse(const std::string& filePath, const std::string& response,
                      const std::string& md5Sum, const std::string& target = {});
  void getResponse(const std::string& filePath, std::string& response);
  void getMd5Sum(const std::string& filePath, std::string& md5Sum);
  // Seconds since 1970.
  void getUploadedDate(const std::string& filePath, std::int64_t& uploaded);
  void insertUploadedChunkEtag(const std::string& filePath, std::int32_t partNumber,
                               const std::string& etag, const std::string& target = {});
  // A part number that cannot be read is logged and left out, here and below.
  void getUploadedChunksEtags(const std::string& filePath,
                              std::vector<std::pair<std::int32_t, std::string>>& etags);
  void getChunksUploaded(const std::string& filePath, std::set<std::int32_t>& partNumbers);
  void deleteFromCacheUpload(const std::string& filePath);

  // --- Downloads: the first byte of every chunk that is in the file -----------------------------
  void storeDownloadedChunkDetails(const std::string& filePath, const std::string& eTag,
                                   std::uint64_t firstByte);
  // False only when a precondition fails.
  bool getFirstBytesDownlaodedChunks(const std::string& filePath, const std::string& eTag,
                                     std::set<std::uint64_t>& firstBytes);
  bool isFilePartiallyDownloaded(const std::string& filePath);
  // Costs microseconds when there is nothing to delete.
  void deleteFromCacheDownload(const std::string& filePath);
  // Around an fdatasync of the file, when no chunk is in flight (a clean pause or cancel): what its
  // rows speak of is on the medium. Without rows there is nothing to mark.
  void beginDownloadSync(const std::string& filePath);
  void markDownloadSynced(const std::string& filePath);

  // --- Beside the rows: what the four tables do not say -----------------------------------------
  // How the chunks of a partial download were cut. A resume that cuts differently must not trust
  // the recorded first bytes: rows under another geometry are deleted (a total length of 0 is one
  // not known yet). Deleted with the path's download rows. Of the URL, which may carry secrets,
  // only a digest is kept.
  void setDownloadGeometry(const std::string& filePath, const std::string& url,
                           std::uint64_t rangeStart, std::uint64_t chunkSize,
                           std::uint64_t totalLength);
  // False when none is recorded, or that of another URL.
  bool findDownloadGeometry(const std::string& filePath, const std::string& url,
                            std::uint64_t& rangeStart, std::uint64_t& chunkSize,
                            std::uint64_t& totalLength);
  // Which upload (URL, protocol, ...) the rows of a local path belong to; only a digest is kept.
  // Rows of another target are deleted. Deleted with the path's upload rows.
  void setUploadTarget(const std::string& filePath, const std::string& target);
  // False when none is recorded, or another one.
  bool isUploadTarget(const std::string& filePath, const std::string& target);

  // --- Expiry -----------------------------------------------------------------------------------
  void clearOutdatedCache();
  void clearOutdatedCacheTimer();

 private:
  enum class FileFacts { Missing, Empty, Present };
  struct Geometry {
    std::string resource;
    std::uint64_t rangeStart = 0;
    std::uint64_t chunkSize = 0;
    std::uint64_t totalLength = 0;
  };

  // Holds _lock for one operation. Log lines come out when the outermost of operations that
  // call each other has released it.
  class KOVO_SCOPED_CAPABILITY Session : boost::noncopyable {
   public:
    explicit Session(SqliteResumeCache& cache) KOVO_ACQUIRE(cache._lock);
    ~Session() KOVO_RELEASE();

   private:
    const DeferredLog _log;
    SqliteResumeCache& _cache;
  };

  static FileFacts factsOf(const std::string& path, std::int64_t& modificationTime);
  static std::string digest(const std::string& text);
  static bool isExpired(std::int64_t now, std::int64_t then);
  std::int64_t now() const;

  bool isUsable() KOVO_REQUIRES(_lock);
  bool hasConstraintsPassed(const std::string& filePath, const char* operation)
      KOVO_REQUIRES(_lock);
  std::int64_t uploadedDate(const std::string& filePath) KOVO_REQUIRES(_lock);
  bool readGeometry(const std::string& filePath, Geometry& geometry) KOVO_REQUIRES(_lock);
  // Ends the use of the database when it fails: no row may outlive the file it speaks of.
  void deleteDownloadRows(const std::string& filePath) KOVO_REQUIRES(_lock);
  // Rows of an earlier boot whose bytes were never confirmed on the medium.
  void changeSyncMark(const std::string& filePath, int from, int to, bool isDurable,
                      const char* operation);
  bool isDistrusted(const std::string& filePath) KOVO_REQUIRES(_lock);
  bool dropDistrusted(const std::string& filePath, const char* operation) KOVO_REQUIRES(_lock);
  void clearOutdatedUploads(std::int64_t now) KOVO_REQUIRES(_lock);
  void clearOutdatedDownloads(std::int64_t now) KOVO_REQUIRES(_lock);
  void clearOutdatedSideRows(std::int64_t now) KOVO_REQUIRES(_lock);

  static constexpr std::int32_t _expiryDays = 5;
  static constexpr std::int32_t _expirySeconds = _expiryDays * 86400;

  Clock& _clock;
  const std::string _bootId;
  std::string _dbPath;  // constant after construction

  mutable RecursiveLock _lock;
  std::unique_ptr<SqliteConnection> _db KOVO_GUARDED_BY(_lock);
  std::int64_t _lastClearedTime KOVO_GUARDED_BY(_lock) = 0;
};

}  // namespace kovo
