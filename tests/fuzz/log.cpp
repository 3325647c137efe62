// The options file of the logger, and lines with foreign texts.
#include "log/kovo_log.h"

#include <filesystem>
#include <fstream>
#include <iterator>

#include "fuzz/fuzz_target.h"
#include "log/deferred_log.h"
#include "support/temp_dir.h"

using kovo::test::contains;
using kovo::test::require;
using kovo::test::TempDir;

namespace {

std::string onlyLogIn(const std::filesystem::path& directory) {
  for (const auto& entry : std::filesystem::directory_iterator(directory)) {
    if (entry.path().extension() == ".log") {
      std::ifstream file(entry.path(), std::ios::binary);
      return {std::istreambuf_iterator<char>(file), {}};
    }
  }
  return {};
}

bool endsWith(const std::string& text, const std::string& end) {
  return text.size() >= end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

}  // namespace

KOVO_FUZZ_TARGET(log) {
  static const TempDir directory("kovo-fuzz-log");
  const std::string text = input.rest();
  std::ofstream(directory.file("KovoLogOptions.txt"), std::ios::binary | std::ios::trunc) << text;

  kovo::registerLoggingCallback(nullptr, nullptr);
  kovo::kovoInitLog(directory.path().c_str());
  const std::uint32_t level = kovo::getLogLevel();
  require(level <= KOVO_LOG_NONE, "the level is one that exists");
  require(level == KOVO_LOG_WARN || contains(text, "level"), "only the options change the level");
  const std::string first = onlyLogIn(directory.path());
  require(endsWith(first, " [ALWAYS]\tKOVO Logging Started\n"), "the first line tells the start");

  const std::string shown = text.substr(0, text.find('\0'));
  {
    const kovo::DeferredLog deferred;
    kovo::kovoLog("name", "file", 1, KOVO_LOG_WARN, "%s|%.8s|%d", text.c_str(), text.c_str(), -1);
  }
  const std::string file = onlyLogIn(directory.path()).substr(first.size());
  std::string unindented;
  for (std::size_t at = 0; at < file.size(); ++at) {
    unindented += file[at];
    const bool isBreak = file[at] == '\n' && at + 1 < file.size();
    require(!isBreak || file[at + 1] == '\t', "one message begins one line at the margin");
    at += isBreak ? 1 : 0;
  }
  require(endsWith(unindented, " [WARN]\t" + shown + "|" + shown.substr(0, 8) + "|-1\n"),
          "a text is logged as it is");
  require(kovo::kovoDeinitLog(), "the logger is closed");
  for (const auto& entry : std::filesystem::directory_iterator(directory.path())) {
    std::filesystem::remove(entry.path());
  }
}
