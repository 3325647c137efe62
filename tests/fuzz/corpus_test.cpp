// Replays every input of the corpora, without a fuzzer.
#include <gtest/gtest.h>

#include <filesystem>
#include <map>

#include "fuzz/fuzz_target.h"
#include "support/resource.h"

namespace kovo::test {
namespace {

std::map<std::string, FuzzFunction>& targets() {
  static std::map<std::string, FuzzFunction> instance;
  return instance;
}

class CorpusTest : public testing::TestWithParam<std::string> {};

TEST_P(CorpusTest, EveryInputHolds) {
  const std::filesystem::path folder = std::filesystem::path(KOVO_CORPUS) / GetParam();
  ASSERT_TRUE(targets().count(GetParam()) == 1) << "no target of the folder's name";
  int inputs = 0;
  for (const auto& entry : std::filesystem::directory_iterator(folder)) {
    const std::string bytes = readFile(entry.path().string());
    EXPECT_LE(bytes.size(), 4096U) << entry.path();
    SCOPED_TRACE(entry.path());
    const auto* data = reinterpret_cast<const std::uint8_t*>(bytes.data());
    runFuzzInput(targets().at(GetParam()), data, bytes.size());
    // And cut short, which most parsers meet sooner or later.
    runFuzzInput(targets().at(GetParam()), data, bytes.size() / 2);
    ++inputs;
  }
  EXPECT_GT(inputs, 0);
}

std::vector<std::string> folders() {
  std::vector<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(KOVO_CORPUS)) {
    names.push_back(entry.path().filename());
  }
  return names;
}

INSTANTIATE_TEST_SUITE_P(Corpora, CorpusTest, testing::ValuesIn(folders()),
                         [](const auto& target) { return target.param; });

TEST(Corpora, EveryTargetHasOne) {
  for (const auto& [name, function] : targets()) {
    EXPECT_TRUE(std::filesystem::is_directory(std::filesystem::path(KOVO_CORPUS) / name)) << name;
  }
}

}  // namespace

FuzzRegistration::FuzzRegistration(const char* name, FuzzFunction function) {
  targets().emplace(name, function);
}

}  // namespace kovo::test
