#include "session.h"

#include <unistd.h>

#include <cstdio>

#include "safe_text.h"
#include "trace_page.h"

namespace kovo::cli {

Session::Session(const CommonOptions& options)
    : _options(options), _signals(_gate), _terminal(options.progress) {
  if (options.json) _observers.add(_json.emplace());
  if (!options.traceFile.empty()) {
    TracePage::requireReplaceable(options.traceFile);
    _observers.add(_trace.emplace());
  }
}

ExitCode Session::run(const EngineOptions& engineOptions, std::uint32_t count,
                      std::uint32_t parallel, const JobQueue::Factory& make) {
  JobQueue queue(_terminal, _signals, _gate, _observers);
  const Engine engine(engineOptions);
  ExitCode code = queue.run(engine.handle(), count, parallel, make);
  try {
    writeTrace();
  } catch (const Failure& failure) {
    printFailure(&_terminal, failure);
    if (code == ExitCode::kOk) code = failure.code;
  }
  if (queue.holdsRecord()) {
    // Destroying the engine would wait for the thread that keeps the record.
    const Terminal::Pause pause;
    std::fflush(nullptr);
    ::_exit(static_cast<int>(code));
  }
  return code;
}

void Session::writeTrace() {
  if (!_trace) return;
  TracePage page(_trace->take());
  page.write(_options.traceFile);
}

}  // namespace kovo::cli
