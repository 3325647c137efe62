#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <iostream>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

#include "command.h"
#include "common_options.h"
#include "failure.h"
#include "ordered_output.h"
#include "safe_text.h"
#include "secrets.h"
#include "session.h"
#include "url_text.h"
#include "usage_error.h"

namespace kovo::cli {

namespace {

constexpr std::pair<std::string_view, kovo_http_verb> kVerbs[] = {
    {"GET", KOVO_HTTP_GET},        {"HEAD", KOVO_HTTP_HEAD},   {"POST", KOVO_HTTP_POST},
    {"PUT", KOVO_HTTP_PUT},        {"PATCH", KOVO_HTTP_PATCH}, {"DELETE", KOVO_HTTP_DELETE},
    {"OPTIONS", KOVO_HTTP_OPTIONS}};

// "@FILE" stands for the file's bytes, "@-" for those of the standard input.
std::string readData(std::string_view text) {
  if (text.empty() || text.front() != '@') return std::string(text);
  const std::string path(text.substr(1));
  std::ifstream file;
  if (path != "-") file.open(path, std::ios::binary);
  std::istream& input = path == "-" ? std::cin : file;
  std::string bytes((std::istreambuf_iterator<char>(input)), std::istreambuf_iterator<char>());
  if (path != "-" && (!file.is_open() || file.bad())) {
    throw Failure(ExitCode::kFile, "cannot read " + printable(path));
  }
  return bytes;
}

struct RequestOptions {
  CommonOptions common;
  std::optional<kovo_http_verb> verb;
  std::optional<std::string> data;
  bool showHeaders = false;
  bool compressed = false;

  OptionTable table() {
    std::vector<Option> rows = {
        {'X', "request", "VERB",
         "GET, HEAD, POST, PUT, PATCH, DELETE or OPTIONS\n(default GET, or POST with --data)",
         [this](std::string_view text) {
           for (const auto& [name, value] : kVerbs) {
             if (name == text) verb = value;
           }
           if (!verb) throw UsageError("--request: '" + std::string(text) + "' is no known verb");
         }},
        {'d', "data", "DATA", "the body to send; @FILE: what FILE holds, @-: standard\ninput",
         [this](std::string_view text) { data = std::string(text); }},
        {'i', "include", "", "print the status and the headers before the body",
         [this](std::string_view) { showHeaders = true; }},
        {0, "compressed", "", "ask for a gzip-encoded answer, and unpack it",
         [this](std::string_view) { compressed = true; }},
    };
    return joined(std::move(rows), common.requestTable());
  }
};

// Prints the head of the answer.
class HeadPrinter : public TransferObserver {
 public:
  void answered(std::uint32_t, std::uint32_t status, const std::string& reason,
                const HeaderList& headers) override {
    if (_printed) return;
    _printed = true;
    std::string text = "HTTP " + std::to_string(status) + " " + printable(reason) + "\n";
    for (const auto& [name, value] : headers) {
      text += printable(name) + ": " + printable(withoutSecrets(value)) + "\n";
    }
    text += "\n";
    std::fwrite(text.data(), 1, text.size(), stdout);
    std::fflush(stdout);
  }

 private:
  bool _printed = false;
};

class RequestJob : public Job {
 public:
  RequestJob(std::uint32_t id, const RequestOptions& options, kovo_http_verb verb,
             const std::string& url, const std::string& body, EventGate& gate,
             TransferObserver& observer)
      : _options(options), _verb(verb), _url(url), _output(STDOUT_FILENO, 0, UINT64_MAX / 2) {
    TransferHooks hooks;
    hooks.sink = &_output;
    hooks.bodyOfErrors = true;
    hooks.body = body;
    _transfer.emplace(id, options.common.transfer, hooks, gate, observer);
  }

  Transfer& transfer() override { return *_transfer; }
  void start(kovo_instance instance) override {
    _transfer->startRequest(instance, _verb, _url, _options.compressed);
  }
  std::string label() const override { return "request"; }
  const std::string& url() const override { return _url; }
  std::string doing() const override { return "request failed:"; }
  std::string file() const override { return {}; }
  std::uint64_t size() const override { return _output.bytesWritten(); }

 private:
  const RequestOptions& _options;
  const kovo_http_verb _verb;
  const std::string _url;
  OrderedOutput _output;
  std::optional<Transfer> _transfer;
};

ExitCode runRequest(const std::vector<std::string>& arguments) {
  RequestOptions options;
  const std::vector<std::string> operands = options.table().parse(arguments);
  if (operands.size() != 1) throw UsageError("kovo request needs one URL");
  const std::string& url = operands[0];
  rememberSecretsOfUrl(url);
  requireHttpUrl(url);
  const kovo_http_verb verb = options.verb.value_or(options.data ? KOVO_HTTP_POST : KOVO_HTTP_GET);
  const bool takesBody = verb == KOVO_HTTP_POST || verb == KOVO_HTTP_PUT || verb == KOVO_HTTP_PATCH;
  if (options.data && !takesBody) throw UsageError("--data goes with POST, PUT and PATCH only");
  const std::string body = options.data ? readData(*options.data) : "";

  options.common.progress = ProgressMode::kNever;
  Session session(options.common);
  HeadPrinter printer;
  if (options.showHeaders || verb == KOVO_HTTP_HEAD) session.add(printer);
  EngineOptions engineOptions = options.common.engineOptions(session.terminal());
  engineOptions.connections = 1;
  return session.run(engineOptions, 1, 1, [&](std::uint32_t id) {
    return std::make_unique<RequestJob>(id, options, verb, url, body, session.gate(),
                                        session.observer());
  });
}

std::string requestHelp() {
  RequestOptions options;
  return "Usage: kovo request URL [-X VERB] [-d DATA] [options]\n\n"
         "Sends one request and prints the body of the answer on standard output, also\n"
         "that of an error. HEAD prints the headers.\n\n" +
         options.table().help();
}

}  // namespace

Command requestCommand() {
  return {"request", "send one request and print the answer", &runRequest, &requestHelp};
}

}  // namespace kovo::cli
