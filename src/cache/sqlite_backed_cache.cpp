#include "cache/sqlite_backed_cache.h"

#include <algorithm>
#include <cstring>
#include <exception>
#include <limits>

#include "cache/database_file.h"
#include "cache/entry_checksum.h"
#include "cache/range_database.h"
#include "cache/sqlite_transaction.h"
#include "core/assertion.h"
#include "log/deferred_log.h"
#include "log/kovo_log.h"

namespace kovo {
namespace {

constexpr int kReaderBusyMilliseconds = 100;
constexpr std::chrono::milliseconds kFlushTime{1000};
constexpr std::size_t kQueueLimit = 64 * 1024 * 1024;
// Bodies of one transaction: each commit writes the changed pages of the indices once.
constexpr std::size_t kBatchSize = 16 * 1024 * 1024;
constexpr std::size_t kScratchKept = 4 * 1024 * 1024;
constexpr std::int64_t kMostCandidates = 32;

constexpr char kLookUp[] =
    "SELECT * FROM CacheEntries WHERE uri = ? AND (etag = ? OR lastModified = ?) AND firstByte <= "
    "? AND ? <= firstByte + length(data)";
constexpr char kStore[] =
    "INSERT INTO CacheEntries (uri, etag, lastModified, firstByte, data, lastUsed) values (?, ?, "
    "?, ?, ?, strftime('%s','now'))";
constexpr char kMarkUsed[] = "UPDATE CacheEntries SET lastUsed = strftime('%s','now') WHERE id = ?";
constexpr char kTotalSize[] = "SELECT SUM(length(data)) FROM CacheEntries";
constexpr char kEvict[] =
    "DELETE FROM CacheEntries WHERE id IN (SELECT id FROM CacheEntries ORDER BY lastUsed LIMIT 2)";
constexpr char kClear[] = "DELETE FROM CacheEntries";

// kLookUp would read on through all entries of a URL where none is long enough; these stop.
constexpr char kHasEntryByEtag[] =
    "SELECT 1 FROM (SELECT firstByte + length(data) AS rangeEnd FROM CacheEntries WHERE uri = ?1 "
    "AND etag = ?2 AND firstByte <= ?3 ORDER BY firstByte DESC LIMIT ?5) WHERE ?4 <= rangeEnd";
constexpr char kHasEntryByLastModified[] =
    "SELECT 1 FROM (SELECT firstByte + length(data) AS rangeEnd FROM CacheEntries WHERE uri = ?1 "
    "AND lastModified = ?2 AND firstByte <= ?3 ORDER BY firstByte DESC LIMIT ?5) WHERE ?4 <= "
    "rangeEnd";
constexpr char kStoreChecksum[] =
    "INSERT OR REPLACE INTO CacheChecksums (id, checksum) VALUES (?, ?)";
constexpr char kReadChecksum[] = "SELECT checksum FROM CacheChecksums WHERE id = ?";
constexpr char kEvictChecksums[] =
    "DELETE FROM CacheChecksums WHERE id IN (SELECT id FROM CacheEntries ORDER BY lastUsed LIMIT "
    "2)";
constexpr char kEvictedSize[] =
    "SELECT SUM(length(data)) FROM CacheEntries WHERE id IN (SELECT id FROM CacheEntries ORDER BY "
    "lastUsed LIMIT 2)";

enum LookUpColumn {
  kIdColumn = 0,
  kEtagColumn = 2,
  kLastModifiedColumn = 3,
  kFirstByteColumn = 4,
  kDataColumn = 5
};

// Results that stand for the moment only; the operation is a miss or a lost store.
bool isPassing(int result) {
  return isSqliteSuccess(result) || result == SQLITE_ROW || result == SQLITE_BUSY ||
         result == SQLITE_LOCKED || result == SQLITE_INTERRUPT || result == SQLITE_NOMEM ||
         result == SQLITE_TOOBIG || result == SQLITE_SCHEMA || result == SQLITE_PROTOCOL;
}

bool isDamage(int result) {
  return result == SQLITE_CORRUPT || result == SQLITE_NOTADB;
}

}  // namespace

SqliteBackedCache::SqliteBackedCache(const std::string& databasePath, std::uint64_t totalLimit,
                                     std::uint64_t entryLimit)
    : _path(databasePath),
      _totalLimit(std::min<std::uint64_t>(totalLimit, std::numeric_limits<std::int64_t>::max())),
      _entryLimit(entryLimit),
      _queue(kQueueLimit, [this] { storeWaiting(); }) {
  if (entryLimit >= totalLimit) {
    return;
  }
  _hasDatabase = open(databasePath);
  if (!_hasDatabase) {
    KOVO_LOG(KOVO_LOG_INFO, "kovo::SqliteBackedCache::SqliteBackedCache",
             "GET cache not used: its database cannot be opened");
  }
}

SqliteBackedCache::~SqliteBackedCache() {
  _queue.stop(kFlushTime, [this]() KOVO_NO_THREAD_SAFETY_ANALYSIS {
    _isGivingUp = true;
    _writer->interrupt();  // the one call that needs no lock; the connection lives until the join
  });
  ScopedLock writeLock(_writeLock);
  if (_writer && _isGivingUp) {
    _writer->closeAtOnce();
  }
}

bool SqliteBackedCache::open(const std::string& path) {
  ScopedLock writeLock(_writeLock);
  ScopedLock lock(_lock);
  _writer = std::make_unique<SqliteConnection>();
  _reader = std::make_unique<SqliteConnection>();
  if (!openRangeDatabase(*_writer, path)) {
    return false;
  }
  _fileId = databaseFileId(path);
  _writer->execute("PRAGMA cache_size=-16384");
  return _reader->open(path, kReaderBusyMilliseconds) == SQLITE_OK &&
         _reader->execute("PRAGMA cache_size=-32768") == SQLITE_DONE &&
         _reader->execute("PRAGMA query_only=1") == SQLITE_DONE;
}

// --- Look-ups -----------------------------------------------------------------------------------

namespace {

// An empty validator matches nothing, and neither does a weak one.
bool canMatch(const std::string& etag) {
  return !etag.empty() && !isWeakEntityTag(etag);
}

void bindValidator(SqliteStatement& statement, int parameter, const std::string& text,
                   bool isUsed) {
  if (isUsed) {
    statement.bind(parameter, text);
  } else {
    statement.bindNull(parameter);
  }
}

}  // namespace

bool SqliteBackedCache::hasEntryBy(Validator validator, SqliteConnection& connection,
                                   const std::string& url, const CacheValidators& validators,
                                   const Span& span) {
  const bool isByEtag = validator == Validator::EntityTag;
  SqliteStatement statement =
      connection.prepare(isByEtag ? kHasEntryByEtag : kHasEntryByLastModified);
  statement.bind(1, url)
      .bind(2, isByEtag ? validators.etag : validators.lastModifiedDate)
      .bind(3, span.start)
      .bind(4, span.end)
      .bind(5, kMostCandidates);
  const int result = statement.step();
  check(result);
  return result == SQLITE_ROW;
}

bool SqliteBackedCache::hasEntry(SqliteConnection& connection, const std::string& url,
                                 const CacheValidators& validators, const Span& span,
                                 Validator& by) {
  by = Validator::EntityTag;
  if (canMatch(validators.etag) && hasEntryBy(by, connection, url, validators, span)) {
    return true;
  }
  by = Validator::LastModified;
  return !validators.lastModifiedDate.empty() && hasEntryBy(by, connection, url, validators, span);
}

bool SqliteBackedCache::findEntry(SqliteStatement& lookUp, const std::string& url,
                                  const CacheValidators& validators, const Span& span) {
  Validator by = Validator::EntityTag;
  if (!hasEntry(*_reader, url, validators, span, by)) {
    return false;
  }
  // The validator that found an entry is the only one bound: the other one's entries may be many
  // and all of them too short.
  lookUp.bind(1, url);
  bindValidator(lookUp, 2, validators.etag, by == Validator::EntityTag);
  bindValidator(lookUp, 3, validators.lastModifiedDate, by == Validator::LastModified);
  lookUp.bind(4, span.start).bind(5, span.end);
  for (std::int64_t candidate = 0; candidate < kMostCandidates; ++candidate) {
    const int result = lookUp.step();
    check(result);
    if (result != SQLITE_ROW) {
      return false;
    }
    // An index that disagrees with its table is one kind of damage.
    if (by == Validator::EntityTag
            ? lookUp.text(kEtagColumn) == validators.etag
            : lookUp.text(kLastModifiedColumn) == validators.lastModifiedDate) {
      return true;
    }
  }
  return false;
}

namespace {

// False for a range that no entry can hold: open, empty or beyond all sizes.
bool isBounded(const KovoRange& range) {
  return range.start >= 0 && range.length > 0 &&
         range.start <= std::numeric_limits<std::int64_t>::max() - range.length;
}

}  // namespace

bool SqliteBackedCache::isIntact(const SqliteStatement& entry, const std::string& url) {
  SqliteStatement checksum = _reader->prepare(kReadChecksum);
  if (checksum.bind(1, entry.integer(kIdColumn)).step() != SQLITE_ROW) {
    return false;  // not stored by this class
  }
  CacheableResponse response;
  response.etag = entry.text(kEtagColumn);
  response.lastModified = entry.text(kLastModifiedColumn);
  response.firstByte = static_cast<std::uint64_t>(entry.integer(kFirstByteColumn));
  const std::uint64_t expected =
      entryChecksum(url, response, entry.blob(kDataColumn), entry.blobSize(kDataColumn));
  if (static_cast<std::uint64_t>(checksum.integer(0)) == expected) {
    return true;
  }
  check(SQLITE_CORRUPT);
  return false;
}

std::uint64_t SqliteBackedCache::getCachedLength(const std::string& url,
                                                 const CacheValidators& validators,
                                                 const KovoRange& range) {
  if (!_hasDatabase || !isBounded(range) ||
      (validators.etag.empty() && validators.lastModifiedDate.empty())) {
    return 0;
  }
  const DeferredLog log;
  ScopedLock lock(_lock);
  Validator by = Validator::EntityTag;
  if (!hasEntry(*_reader, url, validators, {range.start, range.start + range.length}, by)) {
    _stats.miss();
    return 0;
  }
  _stats.hit();
  return static_cast<std::uint64_t>(range.length);
}

HttpGetCache::Status SqliteBackedCache::getData(const std::string& url,
                                                const CacheValidators& validators,
                                                const KovoRange& range, std::uint8_t* buffer,
                                                std::uint64_t bufferSize) {
  if (!_hasDatabase) {
    return NoDatabase;
  }
  if (range.length > 0 && static_cast<std::uint64_t>(range.length) > bufferSize) {
    return BufferTooSmall;
  }
  if ((validators.etag.empty() && validators.lastModifiedDate.empty()) || !isBounded(range)) {
    return Miss;
  }
  const auto length = static_cast<std::size_t>(range.length);
  const DeferredLog log;
  ScopedLock lock(_lock);
  SqliteStatement entry = _reader->prepare(kLookUp);
  if (!findEntry(entry, url, validators, {range.start, range.start + range.length})) {
    _stats.miss();
    return Miss;
  }
  const std::int64_t firstByte = entry.integer(kFirstByteColumn);
  const void* data = entry.blob(kDataColumn);
  const std::size_t dataSize = entry.blobSize(kDataColumn);
  const bool holdsRange = data != nullptr && length <= dataSize && 0 <= firstByte &&
                          firstByte <= range.start &&
                          static_cast<std::uint64_t>(range.start - firstByte) <= dataSize - length;
  if (!holdsRange) {
    KOVO_LOG(KOVO_LOG_ERROR, "kovo::SqliteBackedCache::getData",
             "Cache data (%llu, %d) does not match requested range (%llu, %llu)",
             static_cast<unsigned long long>(firstByte), static_cast<int>(dataSize),
             static_cast<unsigned long long>(range.start),
             static_cast<unsigned long long>(range.length));
    KOVO_ASSERT(holdsRange, "Cache data does not match requested range!");
    _stats.miss();
    return Miss;
  }
  if (!isIntact(entry, url)) {
    _stats.miss();
    return Miss;
  }
  _stats.hit();
  std::memcpy(buffer, static_cast<const std::uint8_t*>(data) + (range.start - firstByte), length);
  return Hit;
}

// --- Stores -------------------------------------------------------------------------------------

bool SqliteBackedCache::isCacheable(const HeaderList& headers) const {
  return _hasDatabase && isCacheableResponse(headers, _entryLimit);
}

template <typename Change>
void SqliteBackedCache::write(const Change& change) {
  const DeferredLog log;
  ScopedLock lock(_writeLock);
  if (!_hasDatabase) {
    return;
  }
  if (_writer->hasMoved()) {
    disable("its database was removed", false);
    return;
  }
  SqliteTransaction transaction(*_writer);
  int result = transaction.begin();
  if (result == SQLITE_DONE) {
    try {
      result = change();
    } catch (...) {
      _isTotalKnown = false;  // what is rolled back has been counted
      throw;
    }
    if (isSqliteSuccess(result)) {
      result = transaction.commit();
    }
    if (!isSqliteSuccess(result)) {
      _isTotalKnown = false;
    }
  }
  check(result);
}

void SqliteBackedCache::storeData(const std::string& url, const HeaderList& headers,
                                  const std::uint8_t* data, std::size_t size) {
  CacheableResponse response;
  if (!_hasDatabase || size > _entryLimit ||
      !describeCacheable(headers, _entryLimit, size, response)) {
    return;
  }
  write([&]() KOVO_NO_THREAD_SAFETY_ANALYSIS { return insert(url, response, data, size); });
}

void SqliteBackedCache::storeBody(const std::string& url, const HeaderList& headers,
                                  BlockList body) {
  StoreQueue::Entry entry;
  if (!_hasDatabase || body.size > body.blocks.size() * ByteBlock::kCapacity ||
      !describeCacheable(headers, _entryLimit, body.size, entry.response)) {
    return;
  }
  entry.url = url;
  entry.body = std::move(body);
  _queue.push(std::move(entry));
}

void SqliteBackedCache::storeWaiting() {
  // Taken inside the transaction: a clear that comes first finds everything in the queue, one that
  // comes later finds it in the table.
  try {
    bool isTaken = false;
    write([&]() KOVO_NO_THREAD_SAFETY_ANALYSIS {
      isTaken = true;
      for (const StoreQueue::Entry& entry : _queue.take(kBatchSize)) {
        const int result = _isGivingUp ? SQLITE_INTERRUPT : insertBody(entry);
        if (!isSqliteSuccess(result)) {
          return result;
        }
      }
      if (_scratch.size() > kScratchKept) {
        std::vector<std::uint8_t>().swap(_scratch);
      }
      return SQLITE_DONE;
    });
    if (!isTaken) {
      _queue.take(kBatchSize);  // the lock could not be had: dropped, or the queue would stand
    }
  } catch (const std::exception&) {
    // No memory for the copy: the entries are lost, as under any other pressure.
  }
  if (!_hasDatabase) {
    _queue.clear();
  }
}

int SqliteBackedCache::insertBody(const StoreQueue::Entry& entry) {
  const BlockList& body = entry.body;
  if (body.size <= ByteBlock::kCapacity) {
    return insert(entry.url, entry.response, body.blocks.front().data(), body.size);
  }
  // One copy: a zeroed blob filled in pieces costs more, since the row's last column is not the
  // data and SQLite then makes the zeros.
  if (_scratch.size() < body.size) {
    _scratch.resize(body.size);
  }
  for (std::size_t offset = 0; offset < body.size; offset += ByteBlock::kCapacity) {
    std::memcpy(_scratch.data() + offset, body.blocks[offset / ByteBlock::kCapacity].data(),
                std::min(ByteBlock::kCapacity, body.size - offset));
  }
  return insert(entry.url, entry.response, _scratch.data(), body.size);
}

int SqliteBackedCache::insert(const std::string& url, const CacheableResponse& response,
                              const void* data, std::size_t size) {
  const auto firstByte = static_cast<std::int64_t>(response.firstByte);
  const auto length = static_cast<std::int64_t>(size);
  Validator by = Validator::EntityTag;
  if (hasEntry(*_writer, url, decisiveValidators(response.etag, response.lastModified),
               {firstByte, firstByte + length}, by)) {
    return SQLITE_DONE;
  }
  int result = refreshTotal();
  if (!isSqliteSuccess(result)) {
    return result;
  }
  result = _writer->prepare(kStore)
               .bind(1, url)
               .bind(2, response.etag)
               .bind(3, response.lastModified)
               .bind(4, firstByte)
               .bindBlob(5, data, size)
               .step();
  if (result == SQLITE_TOOBIG) {
    return SQLITE_DONE;  // beyond what a row can hold; the others of the batch are not
  }
  if (isSqliteSuccess(result)) {
    const std::uint64_t checksum = entryChecksum(url, response, data, size);
    result = _writer->prepare(kStoreChecksum)
                 .bind(1, _writer->lastInsertedId())
                 .bind(2, static_cast<std::int64_t>(checksum))
                 .step();
  }
  if (!isSqliteSuccess(result)) {
    return result;
  }
  _total += length;
  _storedSinceSum += length;
  return trim();
}

// The sum is read again when others have changed the table, but not more often than after every
// sixteenth of the limit stored from here: it reads the beginning of every entry.
int SqliteBackedCache::refreshTotal() {
  if (_isTotalKnown && static_cast<std::uint64_t>(_storedSinceSum) < _totalLimit / 16) {
    return SQLITE_DONE;
  }
  SqliteStatement version = _writer->prepare("PRAGMA data_version");
  const int versionResult = version.step();
  if (versionResult != SQLITE_ROW) {
    return versionResult;
  }
  const std::int64_t dataVersion = version.integer(0);
  if (!_isTotalKnown || dataVersion != _dataVersion) {
    SqliteStatement sum = _writer->prepare(kTotalSize);
    const int result = sum.step();
    if (result != SQLITE_ROW) {
      return result;
    }
    _total = sum.integer(0);
    _dataVersion = dataVersion;
    _isTotalKnown = true;
  }
  _storedSinceSum = 0;
  return SQLITE_DONE;
}

int SqliteBackedCache::evict(std::int64_t& removed) {
  {
    SqliteStatement size = _writer->prepare(kEvictedSize);
    const int result = size.step();
    if (result != SQLITE_ROW) {
      return result;
    }
    removed = size.integer(0);
  }
  int result = _writer->prepare(kEvictChecksums).step();
  if (isSqliteSuccess(result)) {
    result = _writer->prepare(kEvict).step();
  }
  if (isSqliteSuccess(result)) {
    _total -= removed;
  }
  return result;
}

int SqliteBackedCache::trim() {
  // Two entries for one as a rule. A cache of small entries that large ones come into would grow
  // without end at that rate, so beyond an eighth too much the rule does not hold.
  const auto limit = static_cast<std::int64_t>(_totalLimit);
  if (_total <= limit) {
    return SQLITE_DONE;
  }
  std::int64_t removed = 0;
  int result = evict(removed);
  while (isSqliteSuccess(result) && removed > 0 && _total - limit > limit / 8) {
    result = evict(removed);
  }
  return result;
}

void SqliteBackedCache::trimToSize() {
  write([this]() KOVO_NO_THREAD_SAFETY_ANALYSIS {
    const int result = refreshTotal();
    return isSqliteSuccess(result) ? trim() : result;
  });
}

void SqliteBackedCache::markUsed(std::int64_t id) {
  write([&]() KOVO_NO_THREAD_SAFETY_ANALYSIS {
    return _writer->prepare(kMarkUsed).bind(1, id).step();
  });
}

void SqliteBackedCache::clear() {
  _queue.clear();
  write([this]() KOVO_NO_THREAD_SAFETY_ANALYSIS {
    const int result = _writer->prepare(kClear).step();
    _total = 0;
    return isSqliteSuccess(result) ? _writer->execute("DELETE FROM CacheChecksums") : result;
  });
  ScopedLock lock(_writeLock);
  if (_hasDatabase) {
    // Gives the disk space back, unless others are reading.
    _writer->execute("VACUUM");
    _writer->execute("PRAGMA wal_checkpoint(TRUNCATE)");
  }
}

bool SqliteBackedCache::waitUntilStored(std::chrono::milliseconds timeout) {
  return _queue.waitUntilIdle(timeout);
}

// --- Failures -----------------------------------------------------------------------------------

void SqliteBackedCache::check(int result) {
  if (!isPassing(result)) {
    disable(::sqlite3_errstr(result), isDamage(result));
  }
}

void SqliteBackedCache::disable(const char* reason, bool isDamaged) {
  if (!_hasDatabase.exchange(false)) {
    return;
  }
  KOVO_LOG(KOVO_LOG_ERROR, "kovo::SqliteBackedCache::disable", "GET cache not used any more: %s",
           reason);
  if (isDamaged) {
    // The next engine makes another. One that was faster has put it in place already.
    DatabaseReplacementLock replacing(_path);
    if (replacing.isHeld() && databaseFileId(_path) == _fileId) {
      removeDatabaseFiles(_path);
    }
  }
}

}  // namespace kovo
