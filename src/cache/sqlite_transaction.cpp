#include "cache/sqlite_transaction.h"

namespace kovo {

SqliteTransaction::~SqliteTransaction() {
  if (_isOpen) {
    // Fails only when SQLite has rolled back by itself, after a full disk for instance.
    _connection.prepare("ROLLBACK").step();
  }
}

int SqliteTransaction::begin() {
  const int result = _connection.prepare("BEGIN IMMEDIATE").step();
  _connection.noteLockResult(result);
  _isOpen = result == SQLITE_DONE;
  return result;
}

int SqliteTransaction::commit() {
  const int result = _connection.prepare("COMMIT").step();
  _isOpen = result != SQLITE_DONE;
  return result;
}

}  // namespace kovo
