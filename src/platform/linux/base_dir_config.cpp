#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <exception>
#include <stdexcept>
#include <system_error>

#include "log/kovo_log.h"
#include "platform/kovo_utils.h"

namespace kovo {
namespace {

constexpr mode_t kOwnerOnly = 0700;

[[noreturn]] void fail(int errorNumber, const std::string& path) {
  throw std::system_error(errorNumber, std::generic_category(), path);
}

// Relative values are ignored, as the desktop's base directory rules ask.
std::string absoluteDirectoryFrom(const char* variable) {
  const char* value = std::getenv(variable);
  std::string directory = value != nullptr && value[0] == '/' ? value : "";
  while (!directory.empty() && directory.back() == '/') {
    directory.pop_back();
  }
  return directory;
}

std::string dataDirectory() {
  std::string data = absoluteDirectoryFrom("XDG_DATA_HOME");
  if (!data.empty()) {
    return data;
  }
  const std::string home = absoluteDirectoryFrom("HOME");
  if (home.empty()) {
    throw std::runtime_error("neither XDG_DATA_HOME nor HOME names an absolute directory");
  }
  return home + "/.local/share";
}

void makeDirectories(const std::string& path) {
  for (std::size_t end = path.find('/', 1);; end = path.find('/', end + 1)) {
    const std::string directory = path.substr(0, end);
    if (::mkdir(directory.c_str(), kOwnerOnly) != 0) {
      const int errorNumber = errno;
      struct stat facts;
      // Not only EEXIST: an existing folder on a read-only file system answers EROFS.
      if (::stat(directory.c_str(), &facts) != 0 || !S_ISDIR(facts.st_mode)) {
        fail(errorNumber, directory);
      }
    }
    if (end == std::string::npos) {
      return;
    }
  }
}

}  // namespace

std::string BaseDirConfig::initBaseDir() {
  try {
    std::string directory = dataDirectory() + "/Orvel/KOVO";
    makeDirectories(directory);
    // The databases and the log in it name what the user transfers.
    if (::chmod(directory.c_str(), kOwnerOnly) != 0 && ::access(directory.c_str(), W_OK) != 0) {
      fail(errno, directory);
    }
    return directory;
  } catch (const std::exception& exception) {
    KOVO_LOG(KOVO_LOG_ERROR, "kovo::BaseDirConfig::initBaseDir", "Exception in initBaseDir: %s",
             exception.what());
    return {};
  }
}

}  // namespace kovo
