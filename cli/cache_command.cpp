#include <cstdio>
#include <filesystem>
#include <string>
#include <system_error>
#include <vector>

#include "command.h"
#include "data_folder.h"
#include "engine.h"
#include "option_table.h"
#include "quantity.h"
#include "safe_text.h"
#include "usage_error.h"

namespace kovo::cli {

namespace {

namespace fs = std::filesystem;

void printInfo() {
  const std::string folder = dataFolder();
  std::printf("folder  %s\n", printable(folder).c_str());
  std::error_code error;
  std::uint64_t total = 0;
  for (const auto& entry : fs::directory_iterator(folder, error)) {
    std::error_code ignored;
    if (!entry.is_regular_file(ignored)) continue;
    const std::uint64_t size = entry.file_size(ignored);
    if (ignored) continue;
    total += size;
    std::printf("%10s  %s\n", formatBytes(size).c_str(),
                printable(entry.path().filename().string()).c_str());
  }
  std::printf("%10s  in all\n", formatBytes(total).c_str());
}

ExitCode runCache(const std::vector<std::string>& arguments) {
  const std::vector<std::string> operands = OptionTable({}).parse(arguments);
  if (operands.size() == 1 && operands[0] == "info") {
    printInfo();
    return ExitCode::kOk;
  }
  if (operands.size() == 1 && operands[0] == "clear") {
    EngineOptions options;
    options.rangeCache = true;
    const Engine engine(options);
    kovoClearCache(engine.handle());
    return ExitCode::kOk;
  }
  throw UsageError("kovo cache needs one of the words info and clear");
}

std::string cacheHelp() {
  return "Usage: kovo cache info | clear\n\n"
         "info   prints the folder of the databases and the size of its files\n"
         "clear  removes every answer from the cache of ranges (see kovo get --cache)\n";
}

}  // namespace

Command cacheCommand() {
  return {"cache", "tell the size of the cache of ranges, or empty it", &runCache, &cacheHelp};
}

}  // namespace kovo::cli
