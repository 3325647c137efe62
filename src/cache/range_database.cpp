#include "cache/range_database.h"

#include "cache/database_file.h"
#include "cache/sqlite_transaction.h"

namespace kovo {
namespace {

constexpr int kBusyMilliseconds = 1000;

constexpr char kCreateTable[] =
    "CREATE TABLE CacheEntries (id integer primary key asc,uri text NOT NULL, etag text DEFAULT "
    "\"\",lastModified text DEFAULT \"\",firstByte integer,data BLOB NOT NULL,lastUsed integer NOT "
    "NULL)";
constexpr char kCreateLastUsedIndex[] = "CREATE INDEX lastUsedIndex ON CacheEntries(lastUsed ASC)";
// The nearest entry before a range comes first, and all that decides is in the index itself.
constexpr char kCreateEtagIndex[] =
    "CREATE INDEX IF NOT EXISTS etagRangeIndex ON CacheEntries(uri, etag, firstByte DESC, "
    "firstByte + length(data))";
constexpr char kCreateLastModifiedIndex[] =
    "CREATE INDEX IF NOT EXISTS lastModifiedRangeIndex ON CacheEntries(uri, lastModified, "
    "firstByte DESC, firstByte + length(data), etag)";

// Tells entries that were damaged in the file.
constexpr char kCreateChecksums[] =
    "CREATE TABLE IF NOT EXISTS CacheChecksums (id integer primary key, checksum integer NOT NULL)";

bool isDamage(int result) {
  return result == SQLITE_CORRUPT || result == SQLITE_NOTADB;
}

int configure(SqliteConnection& connection) {
  // Large pages: storing costs a third and serving a half of what it does with 4 KiB. Larger still
  // gain little and make the pages of the indices dear.
  connection.execute("PRAGMA page_size=32768");
  const int result = connection.execute("PRAGMA journal_mode=WAL");
  if (isDamage(result)) {
    return result;
  }
  // Consistent after a power cut, at the price of the entries stored last.
  connection.execute("PRAGMA synchronous=NORMAL");
  connection.execute("PRAGMA wal_autocheckpoint=512");  // 16 MiB
  connection.execute("PRAGMA journal_size_limit=33554432");
  connection.execute("PRAGMA secure_delete=OFF");  // zeroing evicted entries doubles the writing
  connection.execute("PRAGMA trusted_schema=OFF");
  // No memory map: a file that others cut short would end the process.
  connection.execute("PRAGMA mmap_size=0");
  return SQLITE_OK;
}

int createTables(SqliteConnection& connection) {
  static constexpr char kCountObjects[] =
      "SELECT COUNT(*) FROM sqlite_master WHERE name IN ('CacheEntries', 'lastUsedIndex', "
      "'etagRangeIndex', 'lastModifiedRangeIndex', 'CacheChecksums')";
  int result = connection.prepare(kCountObjects).step();  // finds a damaged file out
  if (result != SQLITE_ROW) {
    return result;
  }
  if (connection.holdsForeignCode()) {
    return SQLITE_CORRUPT;
  }
  if (connection.queryText(kCountObjects) == "5") {
    return SQLITE_DONE;
  }
  SqliteTransaction transaction(connection);
  result = transaction.begin();
  if (result != SQLITE_DONE) {
    return result;
  }
  // Another process may have been first, between the look and the lock.
  const bool hasTable =
      connection.queryText("SELECT 1 FROM sqlite_master WHERE name = 'CacheEntries'") == "1";
  const bool hasIndex =
      connection.queryText("SELECT 1 FROM sqlite_master WHERE name = 'lastUsedIndex'") == "1";
  for (const char* sql :
       {hasTable ? nullptr : kCreateTable, hasIndex ? nullptr : kCreateLastUsedIndex,
        kCreateEtagIndex, kCreateLastModifiedIndex, kCreateChecksums}) {
    if (sql != nullptr && result == SQLITE_DONE) {
      result = connection.execute(sql);
    }
  }
  return result == SQLITE_DONE ? transaction.commit() : result;
}

int openOnce(SqliteConnection& connection, const std::string& path) {
  int result = connection.open(path, kBusyMilliseconds);
  if (result == SQLITE_OK) {
    result = configure(connection);
  }
  return result == SQLITE_OK ? createTables(connection) : result;
}

}  // namespace

bool openRangeDatabase(SqliteConnection& connection, const std::string& path) {
  int result = openOnce(connection, path);
  if (isDamage(result)) {
    connection.closeAtOnce();
    DatabaseReplacementLock replacing(path);
    if (!replacing.isHeld()) {
      return false;
    }
    result = openOnce(connection, path);  // another process may have replaced it
    if (isDamage(result)) {
      connection.closeAtOnce();
      removeDatabaseFiles(path);
      result = openOnce(connection, path);
    }
  }
  if (!isSqliteSuccess(result)) {
    connection.closeAtOnce();
    return false;
  }
  return true;
}

}  // namespace kovo
