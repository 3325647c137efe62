#pragma once

#include <string>
#include <vector>

namespace kovo::cli {

// The URLs of a file, one per line; "-" is the standard input. Blank lines and lines that begin
// with '#' are passed over. Throws Failure when the file cannot be read.
std::vector<std::string> readUrlList(const std::string& path);

}  // namespace kovo::cli
