#pragma once

#include <boost/noncopyable.hpp>

#include "cache/sqlite_connection.h"

namespace kovo {

// One write transaction, rolled back unless it is committed. Every statement used inside it must be
// given back before commit.
class SqliteTransaction : boost::noncopyable {
 public:
  explicit SqliteTransaction(SqliteConnection& connection) : _connection(connection) {}
  ~SqliteTransaction();

  // Both answer SQLITE_DONE or the failure.
  int begin();
  int commit();

 private:
  SqliteConnection& _connection;
  bool _isOpen = false;
};

}  // namespace kovo
