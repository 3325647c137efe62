#pragma once

namespace kovo::cli {

// What the program's exit status says; `kovo help exit-codes` prints the same list.
enum class ExitCode : int {
  kOk = 0,
  kOther = 1,
  kUsage = 2,
  kHttp = 3,
  kNetwork = 4,
  kTls = 5,
  kTimeout = 6,
  kFile = 7,
  kChecksum = 8,
  kFileExists = 9,
  kInterrupted = 130
};

}  // namespace kovo::cli
