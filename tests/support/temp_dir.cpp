#include "support/temp_dir.h"

#include <cerrno>
#include <cstdlib>
#include <system_error>

namespace kovo::test {

TempDir::TempDir(std::string_view stem) {
  std::string pattern =
      (std::filesystem::temp_directory_path() / (std::string(stem) + "-XXXXXX")).string();
  if (::mkdtemp(pattern.data()) == nullptr) {
    throw std::system_error(errno, std::generic_category(), "mkdtemp");
  }
  _path = pattern;
}

TempDir::~TempDir() {
  std::error_code ignored;
  std::filesystem::remove_all(_path, ignored);
}

}  // namespace kovo::test
