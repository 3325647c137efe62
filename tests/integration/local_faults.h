#pragma once

#include <sqlite3.h>

#include <memory>
#include <string>
#include <vector>

namespace kovo::test {

/** A small file system of its own in the folder path, where the system lets the test have one. */
class SmallDisk {
 public:
  explicit SmallDisk(std::string path);
  ~SmallDisk();
  SmallDisk(const SmallDisk&) = delete;
  SmallDisk& operator=(const SmallDisk&) = delete;

  bool mounted() const { return _mounted; }
  /** Takes all the room there is. */
  void fill() const;
  void makeReadOnly() const;

 private:
  const std::string _path;
  const bool _mounted;
};

/** Lets no file of the process grow beyond so many bytes, while it lives. */
class FileSizeLimit {
 public:
  explicit FileSizeLimit(uint64_t bytes);
  ~FileSizeLimit();
  FileSizeLimit(const FileSizeLimit&) = delete;
  FileSizeLimit& operator=(const FileSizeLimit&) = delete;
};

/** What can happen to the files of a transfer and of its engine; undone by the destructor, as far
 * as it can be. */
class LocalFaults {
 public:
  ~LocalFaults() { unlockDatabases(); }

  void lockDatabases(const std::string& dataHome);
  void unlockDatabases();
  static void corruptDatabases(const std::string& dataHome);
  static void deleteDatabases(const std::string& dataHome);
  static void deleteDataDirectory(const std::string& dataHome);

  std::unique_ptr<SmallDisk> disk;
  std::unique_ptr<FileSizeLimit> limit;

 private:
  std::vector<sqlite3*> _locked;
};

}  // namespace kovo::test
