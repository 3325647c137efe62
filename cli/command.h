#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "exit_code.h"

namespace kovo::cli {

// One word after "kovo".
struct Command {
  std::string_view name;
  std::string_view summary;
  ExitCode (*run)(const std::vector<std::string>& arguments);
  std::string (*help)();
};

const std::vector<Command>& commands();

Command getCommand();
Command putCommand();
Command requestCommand();
Command cacheCommand();
Command resumeCommand();
Command helpCommand();

}  // namespace kovo::cli
