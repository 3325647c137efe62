#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "common_options.h"
#include "option_table.h"

namespace kovo::cli {

// "A-B" of --range: the bytes from first to last, both counted; without last: to the end.
struct ByteRange {
  std::uint64_t first = 0;
  std::optional<std::uint64_t> last;
};

// What kovo get understands.
struct GetOptions {
  CommonOptions common;
  std::string output;
  std::string folder;
  std::string urlFile;
  std::string sha256;
  std::optional<ByteRange> range;
  std::uint64_t chunkSize = 2U << 20;
  std::uint32_t parallel = 8;
  bool remoteName = false;
  bool toStdout = false;
  bool rangeCache = false;
  bool keepPartial = true;
  bool force = false;
  bool skipExisting = false;

  OptionTable table();
  // The URLs of the operands and of the list. Throws UsageError for what does not go together.
  std::vector<std::string> urls(const std::vector<std::string>& operands) const;
};

}  // namespace kovo::cli
