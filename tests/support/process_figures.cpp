#include "support/process_figures.h"

#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>

namespace kovo::test {
namespace {

size_t entriesOf(const char* folder) {
  const std::filesystem::directory_iterator entries(folder);
  return static_cast<size_t>(std::distance(begin(entries), end(entries)));
}

}  // namespace

ProcessFigures ProcessFigures::now() {
  ProcessFigures figures;
  figures.descriptors = entriesOf("/proc/self/fd") - 1; /* the listing's own */
  figures.threads = entriesOf("/proc/self/task");
  uint64_t total = 0;
  uint64_t resident = 0;
  std::ifstream("/proc/self/statm") >> total >> resident;
  figures.residentBytes = resident * static_cast<uint64_t>(::sysconf(_SC_PAGESIZE));
  return figures;
}

}  // namespace kovo::test
