#include "data_folder.h"

#include <cstdlib>

namespace kovo::cli {

std::string dataFolder() {
  const auto absolute = [](const char* variable) -> std::string {
    const char* const value = std::getenv(variable);
    std::string folder = value != nullptr && value[0] == '/' ? value : "";
    while (!folder.empty() && folder.back() == '/') folder.pop_back();
    return folder;
  };
  const std::string data = absolute("XDG_DATA_HOME");
  if (!data.empty()) return data + "/Orvel/KOVO";
  const std::string home = absolute("HOME");
  return home.empty() ? "" : home + "/.local/share/Orvel/KOVO";
}

}  // namespace kovo::cli
