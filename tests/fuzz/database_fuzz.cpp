#include "fuzz/database_fuzz.h"

#include <sqlite3.h>

#include <filesystem>

#include "support/resource.h"

namespace kovo::test {
namespace {

constexpr int kMostSteps = 100'000;

void patch(std::string& bytes, FuzzInput& input) {
  while (!input.isEmpty() && !bytes.empty()) {
    const std::size_t offset = input.number() % bytes.size();
    const std::string patch = input.line();
    bytes.replace(offset, std::min(patch.size(), bytes.size() - offset), patch, 0,
                  std::min(patch.size(), bytes.size() - offset));
  }
}

// Statements stay within the file and end.
void runStatements(const std::string& path, const std::string& statements) {
  sqlite3* handle = nullptr;
  ::sqlite3_open(path.c_str(), &handle);
  ::sqlite3_set_authorizer(
      handle,
      [](void*, int action, const char* first, const char*, const char*, const char*) {
        const std::string name = first == nullptr ? "" : first;
        const bool isForbidden = action == SQLITE_ATTACH || action == SQLITE_DETACH ||
                                 (action == SQLITE_PRAGMA && name != "writable_schema" &&
                                  name != "user_version" && name != "journal_mode");
        return isForbidden ? SQLITE_DENY : SQLITE_OK;
      },
      nullptr);
  ::sqlite3_limit(handle, SQLITE_LIMIT_LENGTH, 1'000'000);
  ::sqlite3_progress_handler(
      handle, kMostSteps, [](void*) { return 1; }, nullptr);
  ::sqlite3_exec(handle, statements.c_str(), nullptr, nullptr, nullptr);
  ::sqlite3_close(handle);
}

}  // namespace

void emptyDirectory(const std::string& directory) {
  for (const auto& entry : std::filesystem::directory_iterator(directory)) {
    std::filesystem::remove(entry.path());
  }
}

bool placeDatabase(FuzzInput& input, const std::string& path, const std::string& own) {
  const std::uint8_t mode = input.byte();
  if (mode == 'r') {
    const std::string bytes = input.rest();
    writeFile(path, bytes);
    return true;
  }
  std::string bytes = own;
  if (mode == 't') {
    bytes.resize(input.number() % (bytes.size() + 1));
  }
  if (mode == 'p' || mode == 't') {
    patch(bytes, input);
  }
  writeFile(path, bytes);
  if (mode == 'w') {
    writeFile(path + "-wal", input.rest());
  } else if (mode == 's') {
    runStatements(path, input.rest());
  }
  return false;
}

}  // namespace kovo::test
