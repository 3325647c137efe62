#include "support/child_process.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <sstream>
#include <stdexcept>

#include "support/resource.h"
#include "support/wait_until.h"

extern char** environ;

namespace kovo::test {

std::string findProgram(const std::string& name) {
  if (name.find('/') != std::string::npos) return name;
  const char* path = std::getenv("PATH");
  std::istringstream folders(std::string(path == nullptr ? "" : path) +
                             ":/usr/sbin:/sbin:/usr/bin:/bin");
  for (std::string folder; std::getline(folders, folder, ':');) {
    const std::string candidate = folder + '/' + name;
    if (!folder.empty() && ::access(candidate.c_str(), X_OK) == 0) return candidate;
  }
  return {};
}

ChildProcess::ChildProcess(const std::vector<std::string>& arguments, const std::string& outputFile,
                           const Environment& environment) {
  const std::string program = findProgram(arguments.at(0));
  if (program.empty()) throw std::runtime_error(arguments[0] + " is not installed");

  /* Everything is allocated here: between fork and exec only bare system calls are allowed. */
  std::vector<std::string> variables;
  for (char** entry = environ; *entry != nullptr; ++entry) {
    const std::string text = *entry;
    bool replaced = false;
    for (const auto& [name, value] : environment) {
      replaced = replaced || text.compare(0, name.size() + 1, name + '=') == 0;
    }
    if (!replaced) variables.push_back(text);
  }
  for (const auto& [name, value] : environment) variables.push_back(name + '=' + value);
  std::vector<char*> argv;
  for (const std::string& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
  argv.push_back(nullptr);
  std::vector<char*> envp;
  for (const std::string& variable : variables) envp.push_back(const_cast<char*>(variable.c_str()));
  envp.push_back(nullptr);

  const pid_t parent = ::getpid();
  _pid = ::fork();
  if (_pid < 0) throw std::runtime_error("fork failed");
  if (_pid == 0) {
    ::prctl(PR_SET_PDEATHSIG, SIGTERM);
    if (::getppid() != parent) ::_exit(126);
    const int in = ::open("/dev/null", O_RDONLY);
    const int out = ::open(outputFile.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
    ::dup2(in, 0);
    ::dup2(out, 1);
    ::dup2(out, 2);
    for (int fd = 3; fd < 1024; ++fd) ::close(fd);
    ::execve(program.c_str(), argv.data(), envp.data());
    ::_exit(127);
  }
}

bool ChildProcess::reap(bool block) {
  if (!_ended) _ended = ::waitpid(_pid, &_status, block ? 0 : WNOHANG) == _pid;
  return _ended;
}

bool ChildProcess::running() {
  return !reap(false);
}

void ChildProcess::signal(int number) {
  if (running()) ::kill(_pid, number);
}

int ChildProcess::wait() {
  reap(true);
  return WIFEXITED(_status) ? WEXITSTATUS(_status) : 128 + WTERMSIG(_status);
}

void ChildProcess::stop() {
  if (!running()) return;
  signal(SIGTERM);
  if (!waitUntil([this] { return !running(); }, std::chrono::seconds(2))) {
    signal(SIGKILL);
    wait();
  }
}

void ChildProcess::run(const std::vector<std::string>& arguments, const std::string& outputFile) {
  ChildProcess child(arguments, outputFile);
  if (child.wait() != 0) {
    throw std::runtime_error(arguments.at(0) + " failed: " + readFile(outputFile));
  }
}

}  // namespace kovo::test
