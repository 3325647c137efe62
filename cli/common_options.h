#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "option_table.h"
#include "terminal.h"
#include "transfer.h"

namespace kovo::cli {

// What every command that moves bytes understands.
struct CommonOptions {
  TransferOptions transfer;
  std::uint32_t connections = 16;
  std::uint64_t bytesPerSecond = 0;
  bool adaptive = false;
  bool quiet = false;
  ProgressMode progress = ProgressMode::kAuto;

  // Their rows for the command's table; they write into this record.
  std::vector<Option> table();
};

// The milliseconds between progress reports that suit the terminal.
std::uint32_t progressIntervalFor(const Terminal& terminal);

}  // namespace kovo::cli
