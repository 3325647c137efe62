#include "support/process_figures.h"

#include <malloc.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>

/* Where a sanitizer allocates. Not counted: what it remembers of every address and thread there
 * ever was, which makes up most of what such a process has resident. */
extern "C" size_t __sanitizer_get_current_allocated_bytes() __attribute__((weak));

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
  figures.heapBytes = __sanitizer_get_current_allocated_bytes != nullptr
                          ? __sanitizer_get_current_allocated_bytes()
                          : ::mallinfo2().uordblks;
  return figures;
}

}  // namespace kovo::test
