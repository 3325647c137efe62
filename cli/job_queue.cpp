#include "job_queue.h"

#include <algorithm>
#include <cstdio>
#include <utility>

#include "failure_report.h"
#include "secrets.h"

namespace kovo::cli {

namespace {

using namespace std::chrono_literals;

bool hasEnded(const Transfer::Status& status) {
  return status.end != Transfer::End::kRunning && status.end != Transfer::End::kFinishing;
}

const char* noteFor(const Transfer::Status& status, bool stopping) {
  if (status.end == Transfer::End::kFinishing) return "checking";
  if (stopping) return "stopping";
  if (status.retriesWaiting != 0) return "retrying";
  if (status.bytesTransferred != 0) return "";
  return status.httpStatus == 0 ? "connecting" : "waiting";
}

}  // namespace

ExitCode JobQueue::run(kovo_instance instance, std::uint32_t count, std::uint32_t parallel,
                       const Factory& make) {
  _lastId = count;
  while (true) {
    while (_signals.stopSignal() == 0 && _nextId <= _lastId && _running.size() < parallel) {
      startNext(instance, make);
    }
    for (Running& running : _running) look(running);
    for (const Running& running : _running) {
      if (hasEnded(running.status)) finish(running);
    }
    const auto ended = [](const Running& running) { return hasEnded(running.status); };
    const std::size_t before = _running.size();
    _running.erase(std::remove_if(_running.begin(), _running.end(), ended), _running.end());
    if (_signals.stopSignal() != 0 && !_stopped) stopRunning();
    if (_running.empty() && (_stopped || _nextId > _lastId)) break;
    if (_running.size() != before && !_stopped) continue;
    draw();
    // Without lines to draw nothing but an event needs this thread.
    _gate.waitFor(_terminal.showsProgress() ? 100ms : 10000ms);
    if (_signals.takeContinued()) _terminal.forgetLines();
    if (_signals.takeResize()) _terminal.resized();
  }
  _terminal.clearLines();
  if (_stopped && _nextId <= _lastId) {
    const std::uint32_t left = _lastId - _nextId + 1;
    _terminal.message("kovo: interrupted: " + std::to_string(left) + " of " +
                      std::to_string(_lastId) + " transfers had not begun");
    if (static_cast<int>(_code) < 128) _code = static_cast<ExitCode>(128 + _signals.stopSignal());
  }
  return _code;
}

void JobQueue::startNext(kovo_instance instance, const Factory& make) {
  const std::uint32_t id = _nextId++;
  try {
    std::unique_ptr<Job> job = make(id);
    Job* const made = job.get();
    _jobs.push_back(std::move(job));
    _observer.started(id, made->url(), made->file());
    _running.push_back({id, made, Clock::now(), false, 0, true, {}});
    _board.add(id, made->label());
    made->start(instance);
  } catch (const Failure& failure) {
    if (!_running.empty() && _running.back().id == id) {
      _running.pop_back();
      _board.remove(id);
    }
    report(id, failure);
  }
}

void JobQueue::look(Running& running) {
  running.status = running.job->transfer().status();
  const Transfer::Status& status = running.status;
  if (!running.counted && status.bytesTransferred != 0) {
    running.counted = true;
    const std::uint64_t stored = running.job->storedBefore();
    running.before = stored > status.bytesTransferred ? stored - status.bytesTransferred : 0;
  }
}

void JobQueue::stopRunning() {
  _stopped = true;
  for (Running& running : _running) {
    running.cancellable = running.job->transfer().cancel();
    if (running.cancellable) continue;
    _terminal.message(
        "kovo: the server has everything already; waiting for its answer "
        "(Ctrl-C again ends at once)");
  }
}

void JobQueue::finish(const Running& running) {
  const Transfer::Status& status = running.status;
  const auto took = Clock::now() - running.started;
  if (status.holdsRecord) _holdsRecord = true;
  // The line of this job goes before a message takes its place.
  _board.remove(running.id);
  draw();
  if (status.end == Transfer::End::kCompleted) {
    const std::uint64_t size = running.job->size();
    if (_terminal.showsProgress()) {
      _terminal.print(summaryLine(running.job->label(), size, took, _terminal.usableColumns(),
                                  running.job->summaryNote()));
    }
    _observer.completed(running.id,
                        {running.job->file(), size, size - std::min(size, running.before), took});
    _board.complete(size);
    return;
  }
  const std::string hint = running.job->settleFailed();
  report(running.id, describeFailure(status, running.job->doing(), running.job->url(),
                                     _signals.stopSignal(), hint));
}

void JobQueue::report(std::uint32_t id, const Failure& failure) {
  if (failure.code == ExitCode::kOk) {
    if (_terminal.showsProgress()) _terminal.message(withoutSecrets(failure.what()));
    _observer.skipped(id, failure.what());
    _board.fail();
    return;
  }
  printFailure(&_terminal, failure);
  _observer.failed(id, failure);
  _board.fail();
  // Whoever pressed Ctrl-C is told so, whatever failed before.
  const bool interrupted = static_cast<int>(failure.code) > 128;
  const bool wasInterrupted = static_cast<int>(_code) > 128;
  if (_firstFailed == 0 || (interrupted && !wasInterrupted) ||
      (id < _firstFailed && interrupted == wasInterrupted)) {
    _firstFailed = id;
    _code = failure.code;
  }
}

void JobQueue::draw() {
  if (!_terminal.showsProgress()) return;
  for (const Running& running : _running) {
    const Transfer::Status& status = running.status;
    _board.update(running.id,
                  {status.bytesTransferred + running.before, status.bytesTotal, status.connections},
                  noteFor(status, _stopped && running.cancellable));
  }
  const std::vector<std::string> lines =
      _board.lines(Clock::now(), _terminal.usableColumns(), _terminal.usableRows(), _lastId);
  if (lines.empty()) {
    _terminal.clearLines();
  } else {
    _terminal.draw(lines);
  }
}

void printFailure(Terminal* terminal, const Failure& failure) {
  std::string text = "kovo: " + std::string(failure.what());
  if (!failure.advice.empty()) text += "\n  " + failure.advice;
  text = withoutSecrets(std::move(text));
  if (terminal != nullptr) {
    terminal->message(text);
  } else {
    std::fprintf(stderr, "%s\n", text.c_str());
  }
}

}  // namespace kovo::cli
