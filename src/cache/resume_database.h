#pragma once

#include <memory>
#include <string>

#include "cache/sqlite_connection.h"

namespace kovo {

// Opens the resume database at path with all its tables, making or replacing it where needed: a
// database of another schema version is emptied, a damaged one replaced. Safe against other
// processes that do the same. Null, with a log line, when that is not possible.
std::unique_ptr<SqliteConnection> openResumeDatabase(const std::string& path);

}  // namespace kovo
