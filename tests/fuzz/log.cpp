// The options file of the logger, and lines with foreign texts.
#include "log/kovo_log.h"

#include <filesystem>

#include "fuzz/database_fuzz.h"
#include "log/deferred_log.h"
#include "support/resource.h"
#include "support/temp_dir.h"

namespace kovo::test {
namespace {

std::string onlyLogIn(const std::filesystem::path& directory) {
  for (const auto& entry : std::filesystem::directory_iterator(directory)) {
    if (entry.path().extension() == ".log") {
      return readFile(entry.path().string());
    }
  }
  return {};
}

}  // namespace

KOVO_FUZZ_TARGET(log) {
  static const TempDir directory("kovo-fuzz-log");
  const std::string text = input.rest();
  writeFile(directory.file("KovoLogOptions.txt"), text);

  registerLoggingCallback(nullptr, nullptr);
  kovoInitLog(directory.path().c_str());
  const std::uint32_t level = getLogLevel();
  require(level <= KOVO_LOG_NONE, "the level is one that exists");
  require(level == KOVO_LOG_WARN || contains(text, "level"), "only the options change the level");
  const std::string first = onlyLogIn(directory.path());
  require(first.ends_with(" [ALWAYS]\tKOVO Logging Started\n"), "the first line tells the start");

  const std::string shown = text.substr(0, text.find('\0'));
  {
    const DeferredLog deferred;
    kovoLog("name", "file", 1, KOVO_LOG_WARN, "%s|%.8s|%d", text.c_str(), text.c_str(), -1);
  }
  const std::string file = onlyLogIn(directory.path()).substr(first.size());
  std::string unindented;
  for (std::size_t at = 0; at < file.size(); ++at) {
    unindented += file[at];
    const bool isBreak = file[at] == '\n' && at + 1 < file.size();
    require(!isBreak || file[at + 1] == '\t', "one message begins one line at the margin");
    at += isBreak ? 1 : 0;
  }
  require(unindented.ends_with(" [WARN]\t" + shown + "|" + shown.substr(0, 8) + "|-1\n"),
          "a text is logged as it is");
  require(kovoDeinitLog(), "the logger is closed");
  emptyDirectory(directory.path().string());
}

}  // namespace kovo::test
