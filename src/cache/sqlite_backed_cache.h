#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "cache/cache_stats.h"
#include "cache/http_get_cache.h"
#include "cache/store_queue.h"
#include "core/lock.h"

namespace kovo {

class SqliteConnection;
class SqliteStatement;

// The GET response cache in one SQLite database, shared with other engines and processes. URLs are
// its keys and may carry secrets: the file is readable by its owner alone. A database that cannot
// be used (damaged, disk full, removed) is reported once and not used further.
//
// Look-ups go through a connection of their own and never wait for a store. Entries are found
// through indices whatever their number; a look-up considers the 32 nearest entries that begin at
// or before the range.
class SqliteBackedCache : public HttpGetCache {
 public:
  SqliteBackedCache(const std::string& databasePath, std::uint64_t totalLimit,
                    std::uint64_t entryLimit);
  // Stores what waits for a second at most, and drops the rest.
  ~SqliteBackedCache() override;

  std::uint64_t getCachedLength(const std::string& url, const CacheValidators& validators,
                                const KovoRange& range) override;
  Status getData(const std::string& url, const CacheValidators& validators, const KovoRange& range,
                 std::uint8_t* buffer, std::uint64_t bufferSize) override;
  void storeData(const std::string& url, const HeaderList& headers, const std::uint8_t* data,
                 std::size_t size) override;
  bool isCacheable(const HeaderList& headers) const override;
  void clear() override;
  void storeBody(const std::string& url, const HeaderList& headers, BlockList body) override;

  // Rewrites the whole entry, its data included, which is why hits do not call it.
  void markUsed(std::int64_t id);
  // Removes the two entries used least recently when the total exceeds its limit.
  void trimToSize();
  // Waits until every body handed over is stored or dropped; false when that took longer.
  bool waitUntilStored(std::chrono::milliseconds timeout);

 private:
  // The range, as far as it is one that an entry can hold.
  struct Span {
    std::int64_t start = 0;
    std::int64_t end = 0;
  };
  enum class Validator { EntityTag, LastModified };

  bool open(const std::string& path);
  // Runs the look-up statement; true with it on the row of an entry that holds the range.
  bool findEntry(SqliteStatement& lookUp, const std::string& url, const CacheValidators& validators,
                 const Span& span) KOVO_REQUIRES(_lock);
  // Whether the entry the statement stands on is as it was stored.
  bool isIntact(const SqliteStatement& entry, const std::string& url) KOVO_REQUIRES(_lock);
  // Whether any entry holds the range; tells the validator it was found by. Reads no data.
  bool hasEntry(SqliteConnection& connection, const std::string& url,
                const CacheValidators& validators, const Span& span, Validator& by);
  bool hasEntryBy(Validator validator, SqliteConnection& connection, const std::string& url,
                  const CacheValidators& validators, const Span& span);

  void storeWaiting();
  int insert(const std::string& url, const CacheableResponse& response, const void* data,
             std::size_t size) KOVO_REQUIRES(_writeLock);
  int insertBody(const StoreQueue::Entry& entry) KOVO_REQUIRES(_writeLock);
  int trim() KOVO_REQUIRES(_writeLock);
  int evict(std::int64_t& removed) KOVO_REQUIRES(_writeLock);
  int refreshTotal() KOVO_REQUIRES(_writeLock);
  // One write transaction around change; the total is put back when it fails.
  template <typename Change>
  void write(const Change& change);
  // Looks at a result; what will not go away by itself ends the use of the database.
  void check(int result);
  void disable(const char* reason, bool isDamaged);

  const std::string _path;
  const std::uint64_t _totalLimit;
  const std::uint64_t _entryLimit;
  std::uint64_t _fileId = 0;  // constant after construction
  std::atomic<bool> _hasDatabase{false};
  std::atomic<bool> _isGivingUp{false};

  RecursiveLock _lock;
  std::unique_ptr<SqliteConnection> _reader KOVO_GUARDED_BY(_lock);
  CacheStats _stats KOVO_GUARDED_BY(_lock);

  RecursiveLock _writeLock;  // never taken with _lock held, nor the other way round
  std::unique_ptr<SqliteConnection> _writer KOVO_GUARDED_BY(_writeLock);
  // Sum of the entries' lengths, as far as known.
  std::int64_t _total KOVO_GUARDED_BY(_writeLock) = 0;
  std::int64_t _storedSinceSum KOVO_GUARDED_BY(_writeLock) = 0;
  std::int64_t _dataVersion KOVO_GUARDED_BY(_writeLock) = 0;
  bool _isTotalKnown KOVO_GUARDED_BY(_writeLock) = false;
  std::vector<std::uint8_t> _scratch KOVO_GUARDED_BY(_writeLock);

  StoreQueue _queue;  // last: its thread ends before anything it uses is gone
};

}  // namespace kovo
