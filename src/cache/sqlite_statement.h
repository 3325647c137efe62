#pragma once

#include <sqlite3.h>

#include <boost/noncopyable.hpp>
#include <cstddef>
#include <cstdint>
#include <string>

namespace kovo {

class SqliteConnection;

// One run of a prepared statement, borrowed from its connection and given back reset. A failure to
// prepare or bind is kept and answered by step().
class SqliteStatement : boost::noncopyable {
 public:
  SqliteStatement(SqliteStatement&& other) noexcept;
  ~SqliteStatement();

  // Parameters count from 1. Texts are copied and throw boost::numeric::positive_overflow beyond
  // 2147483647 bytes; a blob must live until the statement is gone.
  SqliteStatement& bind(int parameter, const std::string& text);
  SqliteStatement& bind(int parameter, std::int64_t value);
  SqliteStatement& bindNull(int parameter);
  SqliteStatement& bindBlob(int parameter, const void* data, std::size_t size);

  // Whether preparing and binding succeeded so far.
  bool isReady() const { return _result == SQLITE_OK; }
  // SQLITE_ROW, SQLITE_DONE or the failure, as a primary result code.
  int step();

  // Columns count from 0. A text ends at its first NUL; NULL reads as an empty text, 0, or no
  // bytes.
  std::string text(int column) const;
  std::int64_t integer(int column) const;
  const void* blob(int column) const;
  std::size_t blobSize(int column) const;
  int columnCount() const;

 private:
  friend class SqliteConnection;
  // borrowed: the connection's mark, cleared at the end; null for a statement to be finalized.
  SqliteStatement(bool* borrowed, sqlite3_stmt* statement, int result);
  void keep(int result);

  bool* _borrowed;
  sqlite3_stmt* _statement;
  int _result;
};

// Whether the last result of a write means that it happened.
inline bool isSqliteSuccess(int result) {
  return result == SQLITE_OK || result == SQLITE_DONE;
}

}  // namespace kovo
