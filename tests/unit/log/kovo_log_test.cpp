#include "log/kovo_log.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>
#include <vector>

#include "support/log_capture.h"
#include "support/resource.h"
#include "support/temp_dir.h"

namespace kovo {
namespace {

using test::LogCapture;
using test::TempDir;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::SizeIs;

constexpr char kName[] = "kovo::Test::name";

// The logger of one engine, in a directory of its own.
class LogTest : public testing::Test {
 protected:
  void TearDown() override {
    if (_started) {
      stop();
    }
    setTimeZone("UTC0");
  }

  void writeOptions(const std::string& text) {
    std::ofstream(directory.file("KovoLogOptions.txt")) << text;
  }
  void start() {
    kovoInitLog(directory.path().c_str());
    _started = true;
  }
  void stop() {
    EXPECT_TRUE(kovoDeinitLog());
    _started = false;
  }
  std::vector<std::string> logFiles() const {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(directory.path())) {
      if (entry.path().extension() == ".log") {
        names.push_back(entry.path().string());
      }
    }
    return names;
  }
  std::string onlyLog() const {
    const auto files = logFiles();
    return files.size() == 1 ? test::readFile(files[0]) : "not one log file";
  }
  static void setTimeZone(const char* zone) {
    ::setenv("TZ", zone, 1);
    ::tzset();
  }
  // A log file that was last written the given number of seconds ago.
  std::string oldLog(const std::string& name, std::int64_t secondsAgo) {
    const std::string path = directory.file(name);
    std::ofstream(path) << "old";
    const timespec times[2] = {{0, UTIME_OMIT}, {std::time(nullptr) - secondsAgo, 0}};
    EXPECT_EQ(::utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
    return path;
  }

  TempDir directory;
  bool _started = false;
};

TEST_F(LogTest, LineHoldsTimeLevelAndMessageAndIsTheOwnersAlone) {
  start();
  KOVO_LOG(KOVO_LOG_WARN, kName, "%s is %d", "answer", 42);
  const std::string large(100'000, 'x');
  KOVO_LOG(KOVO_LOG_ERROR, kName, "%s", large.c_str());
  EXPECT_THAT(onlyLog(),
              MatchesRegex("[0-9]{2}:[0-9]{2}:[0-9]{2}:[0-9]{3} \\[ALWAYS\\]\tKOVO Logging "
                           "Started\n[0-9:]{12} \\[WARN\\]\tanswer is 42\n[0-9:]{12} "
                           "\\[ERROR\\]\tx+\n"));
  EXPECT_THAT(onlyLog(), HasSubstr(large + "\n")) << "a file line has no length limit";
  EXPECT_THAT(logFiles()[0], MatchesRegex(".*/kovo-[0-9]{4}-[0-9]{2}-[0-9]{2}\\.log"));
  struct stat facts;
  ASSERT_EQ(::stat(logFiles()[0].c_str(), &facts), 0);
  EXPECT_EQ(facts.st_mode & 0777, 0600U);
}

TEST_F(LogTest, AForeignFileInThePlaceOfTheLogStaysAsItIs) {
  start();
  const std::string name = logFiles()[0];
  stop();
  const std::string victim = directory.file("victim");
  for (const bool isSymbolic : {true, false}) {
    std::filesystem::remove(name);
    std::ofstream(victim) << "mine";
    if (isSymbolic) {
      std::filesystem::create_symlink(victim, name);
    } else {
      std::filesystem::create_hard_link(victim, name);
    }
    start();
    KOVO_LOG(KOVO_LOG_WARN, kName, "not for you");
    stop();
    EXPECT_EQ(test::readFile(victim), "mine");
  }
}

TEST_F(LogTest, NoMessagePassesForAnother) {
  start();
  KOVO_LOG(KOVO_LOG_WARN, kName, "%s", "first\n12:00:00:000 [ERROR]\tforged\n");
  EXPECT_THAT(onlyLog(), EndsWith(" [WARN]\tfirst\n\t12:00:00:000 [ERROR]\tforged\n\t\n"));
}

TEST_F(LogTest, LevelNoneLeavesOnlyAlways) {
  LogCapture log(9);  // counts as 7
  EXPECT_EQ(getLogLevel(), 7U);
  KOVO_LOG(KOVO_LOG_NONE, kName, "none");
  KOVO_LOG(KOVO_LOG_CRITICAL, kName, "critical");
  KOVO_LOG(KOVO_LOG_ALWAYS, kName, "always");
  setLogLevel(KOVO_LOG_TRACE);
  KOVO_LOG(KOVO_LOG_TRACE, kName, "trace");
  KOVO_LOG(KOVO_LOG_NONE, kName, "none");
  setLogLevel(KOVO_LOG_ALWAYS);
  KOVO_LOG(KOVO_LOG_CRITICAL, kName, "critical");
  EXPECT_THAT(log.messages(), ElementsAre("always", "trace"));
  EXPECT_STREQ(levelName(8), "UNDEFINED");
}

TEST_F(LogTest, OptionsFileSetsLevelOrRetention) {
  const std::string day4 = "kovo-2001-02-03.log";
  struct Case {
    std::string text;
    std::uint32_t level;
    bool keepsFourDays;
  };
  const std::string filler(1024 - 8, ' ');
  for (const Case& c : std::vector<Case>{{"level=6", 6, false},
                                         {"retain=10", 3, true},
                                         {"level=5\nretain=10", 5, false},
                                         {"x=1 level=4", 3, false},
                                         {"level=", 3, false},
                                         {"level = \t 4x", 4, false},
                                         {"level=8", 3, false},
                                         {"level=99999999999999999999999", 3, false},
                                         {"level=2 " + filler + "retain=10", 2, true},
                                         {"", 3, false}}) {
    writeOptions(c.text);
    const std::string old = oldLog(day4, 4 * 86400);
    start();
    EXPECT_EQ(getLogLevel(), c.level) << c.text;
    EXPECT_EQ(std::filesystem::exists(old), c.keepsFourDays) << c.text;
    stop();
  }
}

TEST_F(LogTest, RetentionCountsStartedDaysAndSparesOtherFiles) {
  const std::string gone = oldLog("kovo-2001-01-02.log", 3 * 86400 + 60);
  const std::string folder = directory.file("kovo-2001-01-04.log");
  std::filesystem::create_directory(folder);
  const std::string kept[] = {
      oldLog("kovo-2001-01-01.log", 3 * 86400 - 60), oldLog("kovo-notes.log", 30 * 86400),
      oldLog("mykovo-2001-01-02.log", 30 * 86400), oldLog("kovo-2001-01-03.log", -86400), folder};
  start();
  EXPECT_FALSE(std::filesystem::exists(gone));
  for (const std::string& path : kept) {
    EXPECT_TRUE(std::filesystem::exists(path)) << path;
  }
}

TEST_F(LogTest, AnotherDayGetsAnotherFile) {
  setTimeZone("UTC+12");
  start();
  KOVO_LOG(KOVO_LOG_WARN, kName, "yesterday");
  setTimeZone("UTC-12");  // the same instant, a day later
  KOVO_LOG(KOVO_LOG_WARN, kName, "today");
  auto files = logFiles();
  std::sort(files.begin(), files.end());
  ASSERT_THAT(files, SizeIs(2));
  EXPECT_THAT(test::readFile(files[0]), HasSubstr("yesterday\n"));
  EXPECT_THAT(test::readFile(files[1]), HasSubstr("today\n"));
  EXPECT_THAT(test::readFile(files[1]), Not(HasSubstr("yesterday")));
}

TEST_F(LogTest, TheLastEngineClosesTheLoggerAndForgetsTheCallback) {
  start();
  kovoInitLog("elsewhere");
  EXPECT_THAT(onlyLog(), HasSubstr("Ignoring attempt to reinit logging to elsewhere/kovo at level "
                                   "3 retaining 3 days of logs\n"));
  EXPECT_FALSE(kovoDeinitLog());
  KOVO_LOG(KOVO_LOG_WARN, kName, "still open");
  EXPECT_THAT(onlyLog(), HasSubstr("still open"));
  {
    LogCapture log;
    stop();
    KOVO_LOG(KOVO_LOG_WARN, kName, "dropped");
    EXPECT_THAT(log.messages(), IsEmpty());
  }
  EXPECT_THAT(onlyLog(), Not(HasSubstr("dropped")));
  setLogLevel(KOVO_LOG_TRACE);
  start();
  EXPECT_EQ(getLogLevel(), 3U) << "each first initialisation resets the level";
}

TEST_F(LogTest, CallbackReplacesTheFileAndGetsAtMost2047Bytes) {
  start();
  LogCapture log;
  KOVO_LOG(KOVO_LOG_WARN, kName, "%s", std::string(2047, 'a').c_str());
  KOVO_LOG(KOVO_LOG_WARN, kName, "%s", std::string(5000, 'b').c_str());
  const wchar_t impossible[] = {0x7FFFFFFF, 0};
  KOVO_LOG(KOVO_LOG_ERROR, kName, "%ls", impossible);
  const auto lines = log.lines();
  ASSERT_THAT(lines, SizeIs(3));
  EXPECT_EQ(lines[0].message, std::string(2047, 'a'));
  EXPECT_EQ(lines[1].message, std::string(2047, 'b'));
  EXPECT_EQ(lines[2].message,
            "Invalid format string; snprintf returned negative with format string: %ls\r\n");
  EXPECT_EQ(lines[2].level, 2U);
  EXPECT_EQ(lines[2].function, kName);
  EXPECT_THAT(onlyLog(), MatchesRegex("[^\n]*KOVO Logging Started\n"));
}

TEST_F(LogTest, CallbackMayThrowAndMayCallTheLoggerAgain) {
  static int calls = 0;
  calls = 0;
  registerLoggingCallback(
      [](std::uint32_t, const char*, const char*, const char*, std::uint32_t, void*) {
        if (++calls == 1) {
          setLogLevel(KOVO_LOG_INFO);
          // From another thread: no lock of the logger may be held here.
          std::thread([] { KOVO_LOG(KOVO_LOG_WARN, kName, "from inside"); }).join();
          throw std::runtime_error("client fault");
        }
      },
      nullptr);
  KOVO_LOG(KOVO_LOG_WARN, kName, "outside");
  registerLoggingCallback(nullptr, nullptr);
  EXPECT_EQ(calls, 2);
}

TEST_F(LogTest, LinesOfManyThreadsStayWhole) {
  start();
  constexpr int kThreads = 4;
  constexpr int kLines = 200;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([t] {
      for (int i = 0; i < kLines; ++i) {
        KOVO_LOG(KOVO_LOG_WARN, kName, "thread %d line %03d end", t, i);
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  std::istringstream content(onlyLog());
  std::string line;
  std::getline(content, line);  // the start message
  int whole = 0;
  while (std::getline(content, line)) {
    EXPECT_THAT(line, MatchesRegex("[0-9:]{12} \\[WARN\\]\tthread [0-3] line [0-9]{3} end"));
    ++whole;
  }
  EXPECT_EQ(whole, kThreads * kLines);
}

}  // namespace
}  // namespace kovo
