#include "integration/local_faults.h"

#include <signal.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <utility>

#include "support/resource.h"

namespace kovo::test {
namespace {

bool mountAt(const std::string& path) {
  std::filesystem::create_directories(path);
  return ::mount("tmpfs", path.c_str(), "tmpfs", 0, "size=2m") == 0;
}

std::vector<std::string> databases(const std::string& dataHome) {
  return {dataHome + "/Orvel/KOVO/sqliteResumeTransfer.db", dataHome + "/Orvel/KOVOkovoDB.sqlite"};
}

}  // namespace

SmallDisk::SmallDisk(std::string path) : _path(std::move(path)), _mounted(mountAt(_path)) {}

SmallDisk::~SmallDisk() {
  if (_mounted) ::umount2(_path.c_str(), MNT_DETACH);
}

void SmallDisk::fill() const {
  std::ofstream filler(_path + "/filler", std::ios::binary | std::ios::app);
  const std::string page(4096, 'x');
  while (filler.write(page.data(), static_cast<std::streamsize>(page.size())).flush()) {
  }
}

void SmallDisk::makeReadOnly() const {
  if (::mount(nullptr, _path.c_str(), nullptr, MS_REMOUNT | MS_RDONLY, nullptr) != 0) {
    throw std::runtime_error("the disk cannot be made read-only");
  }
}

FileSizeLimit::FileSizeLimit(uint64_t bytes) {
  ::signal(SIGXFSZ, SIG_IGN);
  rlimit limit{};
  ::getrlimit(RLIMIT_FSIZE, &limit);
  limit.rlim_cur = bytes;
  ::setrlimit(RLIMIT_FSIZE, &limit);
}

FileSizeLimit::~FileSizeLimit() {
  rlimit limit{};
  ::getrlimit(RLIMIT_FSIZE, &limit);
  limit.rlim_cur = limit.rlim_max;
  ::setrlimit(RLIMIT_FSIZE, &limit);
}

void LocalFaults::lockDatabases(const std::string& dataHome) {
  for (const std::string& path : databases(dataHome)) {
    sqlite3* connection = nullptr;
    if (::sqlite3_open_v2(path.c_str(), &connection, SQLITE_OPEN_READWRITE, nullptr) != SQLITE_OK) {
      ::sqlite3_close(connection);
      throw std::runtime_error("no database at " + path);
    }
    _locked.push_back(connection);
    ::sqlite3_busy_timeout(connection, 5000);
    if (::sqlite3_exec(connection, "BEGIN EXCLUSIVE", nullptr, nullptr, nullptr) != SQLITE_OK) {
      throw std::runtime_error("cannot lock " + path);
    }
  }
}

void LocalFaults::unlockDatabases() {
  for (sqlite3* connection : std::exchange(_locked, {})) ::sqlite3_close(connection);
}

void LocalFaults::corruptDatabases(const std::string& dataHome) {
  for (const std::string& path : databases(dataHome)) {
    for (const std::string& file : {path, path + "-wal"}) {
      if (!std::filesystem::exists(file)) continue;
      std::fstream stream(file, std::ios::binary | std::ios::in | std::ios::out);
      const std::string noise = Resource(99, std::filesystem::file_size(file)).all();
      stream.write(noise.data(), static_cast<std::streamsize>(noise.size()));
    }
  }
}

void LocalFaults::deleteDatabases(const std::string& dataHome) {
  for (const std::string& path : databases(dataHome)) {
    for (const char* suffix : {"", "-wal", "-shm", "-journal"}) {
      std::filesystem::remove(path + suffix);
    }
  }
}

void LocalFaults::deleteDataDirectory(const std::string& dataHome) {
  std::filesystem::remove_all(dataHome);
}

}  // namespace kovo::test
