#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "engine.h"
#include "option_table.h"
#include "terminal.h"
#include "transfer.h"

namespace kovo::cli {

// What commands that speak to a server understand.
struct CommonOptions {
  TransferOptions transfer;
  std::string proxyUser;
  std::string proxyPassword;
  bool quiet = false;

  std::uint32_t connections = 16;
  std::uint64_t bytesPerSecond = 0;
  bool adaptive = false;
  ProgressMode progress = ProgressMode::kAuto;
  bool json = false;
  std::string traceFile;

  // Rows for a command's table; they write into this record. Those of one request:
  std::vector<Option> requestTable();
  // and those of transfers, which include them.
  std::vector<Option> transferTable();

  // An engine's options, as far as these options decide them.
  EngineOptions engineOptions(const Terminal& terminal) const;
};

// The table of a command: its own rows, then the shared ones.
OptionTable joined(std::vector<Option> own, std::vector<Option> shared);

}  // namespace kovo::cli
