#include "url_list.h"

#include <cerrno>
#include <cstring>
#include <fstream>
#include <iostream>

#include "failure.h"
#include "safe_text.h"

namespace kovo::cli {

namespace {

std::vector<std::string> readLines(std::istream& input) {
  constexpr const char* kBlank = " \t\r\v\f";
  std::vector<std::string> urls;
  for (std::string line; std::getline(input, line);) {
    const std::size_t begin = line.find_first_not_of(kBlank);
    if (begin == std::string::npos || line[begin] == '#') continue;
    urls.push_back(line.substr(begin, line.find_last_not_of(kBlank) - begin + 1));
  }
  return urls;
}

}  // namespace

std::vector<std::string> readUrlList(const std::string& path) {
  if (path == "-") return readLines(std::cin);
  errno = 0;
  std::ifstream file(path);
  if (file) {
    std::vector<std::string> urls = readLines(file);
    if (!file.bad()) return urls;
  }
  throw Failure(ExitCode::kFile, "cannot read " + printable(path) + ": " + std::strerror(errno));
}

}  // namespace kovo::cli
