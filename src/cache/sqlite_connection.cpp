#include "cache/sqlite_connection.h"

#include "cache/database_file.h"
#include "core/assertion.h"

namespace kovo {
namespace {

constexpr int kImpatientMilliseconds = 5;

int prepareStatement(sqlite3* handle, std::string_view sql, unsigned int flags,
                     sqlite3_stmt** statement) {
  return ::sqlite3_prepare_v3(handle, sql.data(), static_cast<int>(sql.size()), flags, statement,
                              nullptr);
}

}  // namespace

int SqliteConnection::open(const std::string& path, int busyMilliseconds) {
  close();
  if (!createPrivateFile(path)) {
    return SQLITE_CANTOPEN;
  }
  // The library reads a name that starts with "file:" as a URI.
  const std::string name = path.compare(0, 5, "file:") == 0 ? "./" + path : path;
  const int result = ::sqlite3_open_v2(
      name.c_str(), &_handle,
      SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX | SQLITE_OPEN_PRIVATECACHE, nullptr);
  if (result != SQLITE_OK) {
    close();
    return result;
  }
  _busyMilliseconds = busyMilliseconds;
  _isImpatient = false;
  return ::sqlite3_busy_timeout(_handle, busyMilliseconds);
}

void SqliteConnection::close() {
  for (auto& [sql, cached] : _statements) {
    KOVO_ASSERT(!cached.borrowed, "A statement outlives its connection!");
    ::sqlite3_finalize(cached.statement);
  }
  _statements.clear();
  if (_handle != nullptr) {
    ::sqlite3_close_v2(_handle);
    _handle = nullptr;
  }
}

void SqliteConnection::closeAtOnce() {
  if (_handle != nullptr) {
    ::sqlite3_db_config(_handle, SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 1, nullptr);
  }
  close();
}

SqliteStatement SqliteConnection::prepare(std::string_view sql) {
  Cached& cached = _statements[sql];
  if (cached.borrowed) {
    sqlite3_stmt* statement = nullptr;
    const int result = prepareStatement(_handle, sql, 0, &statement);
    return SqliteStatement(nullptr, statement, result);
  }
  int result = SQLITE_OK;
  if (cached.statement == nullptr) {
    result = prepareStatement(_handle, sql, SQLITE_PREPARE_PERSISTENT, &cached.statement);
  }
  cached.borrowed = cached.statement != nullptr;
  return SqliteStatement(cached.borrowed ? &cached.borrowed : nullptr, cached.statement, result);
}

int SqliteConnection::execute(const std::string& sql) {
  sqlite3_stmt* prepared = nullptr;
  const int prepareResult = prepareStatement(_handle, sql, 0, &prepared);
  SqliteStatement statement(nullptr, prepared, prepareResult);
  int result = statement.step();
  while (result == SQLITE_ROW) {
    result = statement.step();
  }
  return result;
}

std::string SqliteConnection::queryText(const std::string& sql) {
  sqlite3_stmt* prepared = nullptr;
  const int prepareResult = prepareStatement(_handle, sql, 0, &prepared);
  SqliteStatement statement(nullptr, prepared, prepareResult);
  return statement.step() == SQLITE_ROW ? statement.text(0) : std::string();
}

bool SqliteConnection::holdsForeignCode() {
  return queryText("SELECT 'yes' FROM sqlite_master WHERE ifnull(rootpage, 0) = 0") == "yes";
}

void SqliteConnection::noteLockResult(int result) {
  const bool isBusy = result == SQLITE_BUSY;
  if (isBusy != _isImpatient) {
    _isImpatient = isBusy;
    ::sqlite3_busy_timeout(_handle, isBusy ? kImpatientMilliseconds : _busyMilliseconds);
  }
}

bool SqliteConnection::hasMoved() {
  int moved = 0;
  return ::sqlite3_file_control(_handle, "main", SQLITE_FCNTL_HAS_MOVED, &moved) == SQLITE_OK &&
         moved != 0;
}

void SqliteConnection::interrupt() {
  if (_handle != nullptr) {
    ::sqlite3_interrupt(_handle);
  }
}

}  // namespace kovo
