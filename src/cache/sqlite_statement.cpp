#include "cache/sqlite_statement.h"

#include <boost/numeric/conversion/cast.hpp>
#include <utility>

namespace kovo {
namespace {

constexpr int kPrimaryCodeMask = 0xff;

}  // namespace

SqliteStatement::SqliteStatement(bool* borrowed, sqlite3_stmt* statement, int result)
    : _borrowed(borrowed), _statement(statement), _result(result & kPrimaryCodeMask) {}

SqliteStatement::SqliteStatement(SqliteStatement&& other) noexcept
    : _borrowed(std::exchange(other._borrowed, nullptr)),
      _statement(std::exchange(other._statement, nullptr)),
      _result(other._result) {}

SqliteStatement::~SqliteStatement() {
  if (_statement == nullptr) {
    return;
  }
  if (_borrowed == nullptr) {
    ::sqlite3_finalize(_statement);  // repeats the result of the last step
    return;
  }
  ::sqlite3_reset(_statement);  // likewise
  ::sqlite3_clear_bindings(_statement);
  *_borrowed = false;
}

void SqliteStatement::keep(int result) {
  if (_result == SQLITE_OK) {
    _result = result & kPrimaryCodeMask;
  }
}

SqliteStatement& SqliteStatement::bind(int parameter, const std::string& text) {
  const int size = boost::numeric_cast<int>(text.size());
  if (isReady()) {
    // sqlite3.h makes SQLITE_TRANSIENT with a C cast.
    const auto transient = reinterpret_cast<sqlite3_destructor_type>(-1);
    keep(::sqlite3_bind_text(_statement, parameter, text.data(), size, transient));
  }
  return *this;
}

SqliteStatement& SqliteStatement::bind(int parameter, std::int64_t value) {
  if (isReady()) {
    keep(::sqlite3_bind_int64(_statement, parameter, value));
  }
  return *this;
}

SqliteStatement& SqliteStatement::bindNull(int parameter) {
  if (isReady()) {
    keep(::sqlite3_bind_null(_statement, parameter));
  }
  return *this;
}

SqliteStatement& SqliteStatement::bindBlob(int parameter, const void* data, std::size_t size) {
  if (isReady()) {
    keep(::sqlite3_bind_blob64(_statement, parameter, data, size, nullptr));
  }
  return *this;
}

int SqliteStatement::step() {
  return isReady() ? ::sqlite3_step(_statement) & kPrimaryCodeMask : _result;
}

std::string SqliteStatement::text(int column) const {
  const unsigned char* text = ::sqlite3_column_text(_statement, column);
  return text == nullptr ? std::string() : reinterpret_cast<const char*>(text);
}

std::int64_t SqliteStatement::integer(int column) const {
  return ::sqlite3_column_int64(_statement, column);
}

const void* SqliteStatement::blob(int column) const {
  return ::sqlite3_column_blob(_statement, column);
}

std::size_t SqliteStatement::blobSize(int column) const {
  return static_cast<std::size_t>(::sqlite3_column_bytes(_statement, column));
}

int SqliteStatement::columnCount() const {
  return ::sqlite3_column_count(_statement);
}

}  // namespace kovo
