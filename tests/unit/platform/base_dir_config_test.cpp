#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>

#include "platform/kovo_utils.h"
#include "support/temp_dir.h"

namespace kovo {
namespace {

// Two variables of the environment, put back at the end.
class BaseDirConfigTest : public testing::Test {
 protected:
  BaseDirConfigTest() : _data(valueOf("XDG_DATA_HOME")), _home(valueOf("HOME")) {}
  ~BaseDirConfigTest() override {
    set("XDG_DATA_HOME", _data.c_str());
    set("HOME", _home.c_str());
  }
  static void set(const char* name, const char* value) { ::setenv(name, value, 1); }
  static std::string valueOf(const char* name) {
    const char* value = std::getenv(name);
    return value == nullptr ? "" : value;
  }
  static unsigned modeOf(const std::string& path) {
    struct stat facts {};
    EXPECT_EQ(::stat(path.c_str(), &facts), 0) << path;
    return facts.st_mode & 0777;
  }

  test::TempDir directory;

 private:
  const std::string _data;
  const std::string _home;
};

TEST_F(BaseDirConfigTest, DataHomeComesFirstThenHome) {
  set("XDG_DATA_HOME", (directory.file("data") + "/").c_str());
  set("HOME", directory.file("home").c_str());
  EXPECT_EQ(BaseDirConfig::initBaseDir(), directory.file("data/Orvel/KOVO"));
  EXPECT_EQ(modeOf(directory.file("data")), 0700U);
  EXPECT_EQ(modeOf(directory.file("data/Orvel/KOVO")), 0700U);
  EXPECT_EQ(BaseDirConfig::initBaseDir(), directory.file("data/Orvel/KOVO")) << "once more";

  for (const char* unusable : {"", "relative/data"}) {
    set("XDG_DATA_HOME", unusable);
    EXPECT_EQ(BaseDirConfig::initBaseDir(), directory.file("home/.local/share/Orvel/KOVO"));
  }
}

}  // namespace
}  // namespace kovo
