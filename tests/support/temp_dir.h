#pragma once

#include <filesystem>
#include <string>
#include <string_view>

namespace kovo::test {

/** A fresh directory under the system's temporary directory, removed with everything in it. */
class TempDir {
 public:
  explicit TempDir(std::string_view stem = "kovo-test");
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::filesystem::path& path() const { return _path; }
  /** Absolute path of name inside the directory; nothing is created. */
  std::string file(std::string_view name) const { return (_path / name).string(); }

 private:
  std::filesystem::path _path;
};

}  // namespace kovo::test
