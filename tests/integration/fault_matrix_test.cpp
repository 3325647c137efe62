#include <gtest/gtest.h>
#include <kovo/kovo_ext.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <tuple>

#include "integration/fault_cell.h"
#include "integration/fault_matrix.h"
#include "support/process_figures.h"
#include "support/temp_dir.h"
#include "support/wait_until.h"

namespace kovo::test {
namespace {

using Key = std::tuple<Kind, Fault, Phase, bool>;

/* What the cells of this run ended in. KOVO_MATRIX_REPORT names a file that gets it as tables. */
class Report : public ::testing::Environment {
 public:
  static std::map<Key, std::string>& outcomes() {
    static std::map<Key, std::string> all;
    return all;
  }

  void TearDown() override {
    const char* path = std::getenv("KOVO_MATRIX_REPORT");
    if (path == nullptr) return;
    std::ofstream out(path);
    for (const Kind kind : allKinds()) {
      out << "\n### " << heading(kind) << "\n\n|";
      std::vector<Phase> phases;
      for (const Phase phase : allPhases()) {
        for (const Fault fault : allFaults()) {
          if (!whyNot({kind, phase, fault}).empty()) continue;
          phases.push_back(phase);
          break;
        }
      }
      for (const Phase phase : phases) out << " | " << nameOf(phase);
      out << " |\n|---";
      for (size_t i = 0; i < phases.size(); ++i) out << "|---";
      out << "|\n";
      for (const Fault fault : allFaults()) {
        std::string row;
        bool any = false;
        for (const Phase phase : phases) {
          row += " | " + cell(kind, fault, phase);
          any = any || whyNot({kind, phase, fault}).empty();
        }
        if (any) out << "| " << nameOf(fault) << row << " |\n";
      }
    }
  }

 private:
  static std::string heading(Kind kind) {
    std::string text = nameOf(kind);
    text[0] = static_cast<char>(std::toupper(static_cast<unsigned char>(text[0])));
    return text;
  }

  static std::string cell(Kind kind, Fault fault, Phase phase) {
    if (!whyNot({kind, phase, fault}).empty()) return "";
    const auto once = outcomes().find({kind, fault, phase, false});
    std::string text = once == outcomes().end() ? "not run" : once->second;
    const auto again = outcomes().find({kind, fault, phase, true});
    if (again != outcomes().end()) text += " / " + again->second;
    return text;
  }
};

const auto* const kReport = ::testing::AddGlobalTestEnvironment(new Report);

std::vector<Cell> cellsOf(Kind kind, Fault fault) {
  std::vector<Cell> cells;
  for (const Phase phase : allPhases()) {
    for (const bool retried : {false, true}) {
      const Cell cell{kind, phase, fault, retried};
      if (whyNot({kind, phase, fault}).empty() && whyNot(cell).empty()) cells.push_back(cell);
    }
  }
  return cells;
}

std::vector<std::tuple<Kind, Fault>> groups() {
  std::vector<std::tuple<Kind, Fault>> all;
  for (const Kind kind : allKinds()) {
    for (const Fault fault : allFaults()) {
      if (!cellsOf(kind, fault).empty()) all.emplace_back(kind, fault);
    }
  }
  return all;
}

std::string describe(const Cell& cell) {
  return nameOf(cell.kind) + ", " + nameOf(cell.fault) + ", " + nameOf(cell.phase) +
         (cell.retried ? ", sent again" : "");
}

TestEngineOptions engineOptions(const std::string& dataHome, bool withCache) {
  TestEngineOptions options;
  options.dataHome = dataHome;
  options.hardware = 33;
  options.config.workerPoolUpperLimit = 32;
  options.config.adaptiveStrategy = 0;
  options.config.maxActiveWorkProviders = 64;
  options.config.chunkSize = kMatrixChunk;
  options.config.getCacheEnabled = withCache ? 1 : 0;
  return options;
}

/* Inputs, complete outputs, databases, logs, and what filled a disk. */
void expectNoLeftovers(const TempDir& folder) {
  const std::vector<std::string> known{
      "input", "output._kstmp", "sqliteResumeTransfer.db", "KOVOkovoDB.sqlite", "kovo-", "filler"};
  for (const auto& entry : std::filesystem::recursive_directory_iterator(folder.path())) {
    const std::string name = entry.path().filename();
    EXPECT_TRUE(entry.is_directory() ||
                std::any_of(known.begin(), known.end(),
                            [&](const std::string& each) { return name.starts_with(each); }))
        << entry.path() << " was left behind";
  }
}

/** A healthy transfer on an engine on which others have ended. */
void expectHealthy(TestEngine& engine, Kind kind, const std::string& folder) {
  SCOPED_TRACE("a healthy transfer afterwards");
  FaultCell healthy(kind, folder);
  healthy.start(engine);
  healthy.expectEnding(engine);
}

/** Runs cells at the same time: on one engine, or, when they meet the whole engine, on one each. */
void runTogether(Kind kind, const std::vector<Cell>& cells, bool onOneEngine) {
  const TempDir folder("kovo-matrix");
  std::vector<std::unique_ptr<FaultCell>> runs;
  for (const Cell& cell : cells) {
    runs.push_back(std::make_unique<FaultCell>(
        kind, folder.file("cell-" + std::to_string(runs.size())), cell));
    if (const std::string why = runs.back()->unavailable(); !why.empty()) {
      GTEST_SKIP() << describe(cell) << ": " << why;
    }
  }
  std::vector<std::unique_ptr<TestEngine>> engines;
  for (size_t i = 0; i < (onOneEngine ? 1 : cells.size()); ++i) {
    engines.push_back(std::make_unique<TestEngine>(
        engineOptions(onOneEngine ? folder.file("data") : runs[i]->dataHome(), !onOneEngine)));
  }
  const auto engineOf = [&](size_t i) -> TestEngine& { return *engines[onOneEngine ? 0 : i]; };
  for (size_t i = 0; i < cells.size(); ++i) runs[i]->start(engineOf(i));
  for (size_t i = 0; i < cells.size(); ++i) {
    SCOPED_TRACE(describe(cells[i]));
    runs[i]->expectEnding(engineOf(i));
    const auto& [cellKind, phase, fault, retried] = cells[i];
    Report::outcomes()[{cellKind, fault, phase, retried}] = runs[i]->outcome();
  }
  for (size_t i = 0; i < engines.size(); ++i) {
    expectHealthy(*engines[i], kind, folder.file("healthy-" + std::to_string(i)));
  }
  engines.clear();
  expectNoLeftovers(folder);
}

class FaultMatrix : public ::testing::TestWithParam<std::tuple<Kind, Fault>> {
 protected:
  /* What a process gets with its first transfers and keeps. */
  static void SetUpTestSuite() {
    kovoSetS3Endpoint("127.0.0.1");
    for (const Kind kind : allKinds()) {
      runTogether(kind, {}, true);
      runTogether(kind, {{kind, Phase::kResolve, Fault::kRefused}}, true);
    }
  }
  static void TearDownTestSuite() { kovoSetS3Endpoint(nullptr); }
};

TEST_P(FaultMatrix, EndsAsDocumentedAndKeepsNothing) {
  const auto [kind, fault] = GetParam();
  const ProcessFigures before = ProcessFigures::now();
  runTogether(kind, cellsOf(kind, fault), !isLocal(fault));
  ProcessFigures after;
  waitUntil(
      [&] {
        after = ProcessFigures::now();
        return after.descriptors <= before.descriptors && after.threads <= before.threads;
      },
      std::chrono::seconds(10));
  EXPECT_LE(after.descriptors, before.descriptors);
  EXPECT_LE(after.threads, before.threads);
}

INSTANTIATE_TEST_SUITE_P(All, FaultMatrix, ::testing::ValuesIn(groups()), [](const auto& test) {
  std::string name;
  bool wordBegins = true;
  for (const char c : nameOf(std::get<0>(test.param)) + " " + nameOf(std::get<1>(test.param))) {
    const auto byte = static_cast<unsigned char>(c);
    if (std::isalnum(byte) != 0) name += static_cast<char>(wordBegins ? std::toupper(byte) : byte);
    wordBegins = std::isalnum(byte) == 0;
  }
  return name;
});

}  // namespace
}  // namespace kovo::test
