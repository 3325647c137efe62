#pragma once

#include <string>

#include "cache/sqlite_connection.h"

namespace kovo {

// Opens the GET cache's database at path for writing, with its table and indices, making it or
// replacing a damaged one where needed. Safe against other processes that do the same.
bool openRangeDatabase(SqliteConnection& connection, const std::string& path);

}  // namespace kovo
