#include <kovo/kovo.h>

#include <cstdio>

#include "command.h"
#include "usage_error.h"

namespace kovo::cli {

namespace {

std::string overview() {
  std::string text =
      "kovo: downloads and uploads over HTTP with several requests at once\n\n"
      "Usage: kovo COMMAND ...\n\n";
  for (const Command& command : commands()) {
    std::string line = "  " + std::string(command.name);
    line.resize(14, ' ');
    text += line + std::string(command.summary) + "\n";
  }
  return text +
         "\n"
         "kovo help COMMAND tells a command's options, kovo help exit-codes what the exit\n"
         "status means, and kovo --version which version this is. http_proxy, https_proxy\n"
         "and no_proxy are honoured.\n";
}

std::string exitCodes() {
  return "Exit status of kovo; with several URLs, that of the first one in their order that\n"
         "failed:\n\n"
         "  0    everything is complete\n"
         "  1    a failure that none of the following describes\n"
         "  2    the command line cannot be understood\n"
         "  3    the server answered with an error (HTTP status 400 and above)\n"
         "  4    the network failed: no such host, refused, broken off\n"
         "  5    TLS failed: the certificate is not trusted, or no common protocol\n"
         "  6    the server stopped answering (--timeout)\n"
         "  7    a file or folder cannot be read or written, or the disk is full\n"
         "  8    the checksum of the downloaded bytes differs (--sha256)\n"
         "  9    the output file exists already, and --force was not given\n"
         "  130  interrupted by Ctrl-C; by another signal: 128 and its number\n";
}

ExitCode runHelp(const std::vector<std::string>& arguments) {
  if (arguments.empty()) {
    std::fputs(overview().c_str(), stdout);
    return ExitCode::kOk;
  }
  if (arguments[0] == "exit-codes") {
    std::fputs(exitCodes().c_str(), stdout);
    return ExitCode::kOk;
  }
  for (const Command& command : commands()) {
    if (command.name != arguments[0]) continue;
    std::fputs(command.help().c_str(), stdout);
    return ExitCode::kOk;
  }
  throw UsageError("no help on '" + arguments[0] + "'");
}

std::string helpHelp() {
  return "Usage: kovo help [COMMAND | exit-codes]\n";
}

}  // namespace

Command helpCommand() {
  return {"help", "explain a command, or the exit codes", &runHelp, &helpHelp};
}

}  // namespace kovo::cli
