#pragma once

#include <string>

namespace kovo::cli {

// Where the library keeps its databases and this program its notes:
// "$XDG_DATA_HOME/Orvel/KOVO", or "~/.local/share/Orvel/KOVO". Empty when neither can be named.
std::string dataFolder();

}  // namespace kovo::cli
