#include <kovo/kovo.h>

#include <signal.h>

#include <algorithm>
#include <clocale>
#include <cstdio>
#include <exception>
#include <string>
#include <string_view>
#include <vector>

#include "command.h"
#include "failure.h"
#include "job_queue.h"
#include "safe_text.h"
#include "secrets.h"
#include "usage_error.h"

namespace kovo::cli {

const std::vector<Command>& commands() {
  static const std::vector<Command> all = {getCommand(),   putCommand(),    requestCommand(),
                                           cacheCommand(), resumeCommand(), helpCommand()};
  return all;
}

namespace {

ExitCode run(std::vector<std::string> words) {
  if (words.empty()) throw UsageError("a command is needed");
  const std::string name = words.front();
  words.erase(words.begin());
  if (name == "--version" || name == "-V") {
    std::printf("kovo %s\n", kovoVersion());
    return ExitCode::kOk;
  }
  if (name == "--help" || name == "-h") return helpCommand().run(words);
  for (const Command& command : commands()) {
    if (command.name != name) continue;
    const bool wantsHelp =
        std::any_of(words.begin(), std::find(words.begin(), words.end(), "--"),
                    [](const std::string& word) { return word == "--help" || word == "-h"; });
    return wantsHelp ? helpCommand().run({name}) : command.run(words);
  }
  throw UsageError("'" + name + "' is no command");
}

}  // namespace

}  // namespace kovo::cli

int main(int count, char** arguments) {
  using namespace kovo::cli;
  std::setlocale(LC_CTYPE, "");
  ::signal(SIGPIPE, SIG_IGN);  // who writes to a pipe hears of its end from the write
  try {
    return static_cast<int>(run(std::vector<std::string>(arguments + 1, arguments + count)));
  } catch (const UsageError& error) {
    const std::string_view name = count > 1 ? arguments[1] : "";
    const bool isCommand =
        std::any_of(commands().begin(), commands().end(),
                    [&](const Command& command) { return command.name == name; });
    std::fprintf(stderr, "kovo: %s\nTry 'kovo help%s%s'.\n",
                 printable(withoutSecrets(error.what())).c_str(), isCommand ? " " : "",
                 isCommand ? arguments[1] : "");
    return static_cast<int>(ExitCode::kUsage);
  } catch (const Failure& failure) {
    printFailure(nullptr, failure);
    return static_cast<int>(failure.code);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "kovo: %s\n", error.what());
    return static_cast<int>(ExitCode::kOther);
  }
}
