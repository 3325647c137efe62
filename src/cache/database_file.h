#pragma once

#include <boost/noncopyable.hpp>
#include <cstdint>
#include <string>

namespace kovo {

// A database file must never be opened and closed beside SQLite: the close would release every
// lock that other connections of this process hold on it. Hence names only, no descriptors.

// Creates path empty when it is missing, and makes it readable and writable by its owner alone.
// SQLite gives the files it makes beside a database the same mode. False when there is no such
// regular file afterwards; a symbolic link is refused.
bool createPrivateFile(const std::string& path);

// Removes a database and the files beside it. A process that has them open goes on with the
// nameless files.
void removeDatabaseFiles(const std::string& path);

// Tells the file at path from one that takes its place later; 0 when there is none.
std::uint64_t databaseFileId(const std::string& path);

// Held by a process that replaces a damaged database, so that two do not remove each other's.
class DatabaseReplacementLock : boost::noncopyable {
 public:
  // Waits a bounded time.
  explicit DatabaseReplacementLock(const std::string& databasePath);
  ~DatabaseReplacementLock();
  bool isHeld() const { return _descriptor >= 0; }

 private:
  int _descriptor = -1;
};

}  // namespace kovo
