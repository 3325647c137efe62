#pragma once

#include <sqlite3.h>

#include <boost/noncopyable.hpp>
#include <string>
#include <string_view>
#include <unordered_map>

#include "cache/sqlite_statement.h"

namespace kovo {

// One connection to a database file and the statements prepared on it. Its user serialises every
// call but interrupt().
class SqliteConnection : boost::noncopyable {
 public:
  SqliteConnection() = default;
  ~SqliteConnection() { close(); }

  // Opens a database, created empty and readable by its owner alone when there is no file. A lock
  // held by others is waited for, for busyMilliseconds at most. Answers an SQLite result code.
  int open(const std::string& path, int busyMilliseconds);
  // No statement may be out. A database without other users is checkpointed.
  void close();
  // As close, leaving the write-ahead log as it is for the next one to open the database.
  void closeAtOnce();
  bool isOpen() const { return _handle != nullptr; }

  // sql lives as long as the connection (a literal): the prepared statement is kept and lent again.
  SqliteStatement prepare(std::string_view sql);
  // Runs one statement to its end, not kept; SQLITE_DONE or the failure.
  int execute(const std::string& sql);
  // The single value of one statement's first row; empty without one.
  std::string queryText(const std::string& sql);

  // Whether the schema holds a view, a trigger or a virtual table. This library makes none: in a
  // database of its own they are foreign code, which its statements would run, for ever if need be.
  bool holdsForeignCode();

  // After a lock could not be had in time, later waits are short until one succeeds: a stopped
  // process that holds the lock must not cost every caller the whole wait.
  void noteLockResult(int result);

  // Whether the path names another file by now, or none.
  bool hasMoved();
  std::int64_t lastInsertedId() const { return ::sqlite3_last_insert_rowid(_handle); }
  // Ends the statement that is running, from any thread.
  void interrupt();

 private:
  struct Cached {
    sqlite3_stmt* statement = nullptr;
    bool borrowed = false;
  };

  sqlite3* _handle = nullptr;
  int _busyMilliseconds = 0;
  bool _isImpatient = false;
  std::unordered_map<std::string_view, Cached> _statements;
};

}  // namespace kovo
