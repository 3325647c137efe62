#include "trace_recorder.h"

#include <algorithm>

#include "failure.h"
#include "url_text.h"

namespace kovo::cli {

namespace {

// Enough for every column of a large screen; beyond it every second entry is dropped.
constexpr std::size_t kMostSamples = 8000;

}  // namespace

double TraceRecorder::now() const {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - _begin).count();
}

TraceRecorder::Lane& TraceRecorder::laneOfThisThread() {
  const auto [found, isNew] = _lanes.try_emplace(std::this_thread::get_id());
  if (isNew) found->second.number = _trace.lanes++;
  return found->second;
}

void TraceRecorder::endRequest(Lane& lane, double next) {
  if (lane.running < 0) return;
  Trace::Request& request = _trace.requests[static_cast<std::size_t>(lane.running)];
  request.end = next;
  // What follows is not this worker's: it had nothing to do once the transfer was over.
  const auto ended = _ends.find(request.transfer);
  if (ended != _ends.end()) request.end = std::min(next, ended->second);
  request.seen = std::clamp(lane.lastBytes, request.begin, request.end);
  lane.running = -1;
}

template <typename Entry>
void TraceRecorder::thinOut(std::vector<Entry>& entries, double& interval) {
  if (entries.size() < kMostSamples) return;
  std::size_t kept = 0;
  for (std::size_t i = 0; i < entries.size(); i += 2) entries[kept++] = entries[i];
  entries.resize(kept);
  interval *= 2;
}

void TraceRecorder::started(std::uint32_t id, const std::string& url, const std::string& file) {
  const std::lock_guard<std::mutex> hold(_mutex);
  _trace.transfers.push_back({id, displayUrl(url), file, "unfinished", now(), 0, 0});
}

void TraceRecorder::progressed(std::uint32_t id, std::uint64_t bytes, std::uint64_t) {
  const std::lock_guard<std::mutex> hold(_mutex);
  const double time = now();
  laneOfThisThread().lastBytes = time;
  std::uint64_t& known = _bytes[id];
  if (bytes > known) _allBytes += bytes - known;
  known = std::max(known, bytes);
  if (!_trace.samples.empty() && time - _trace.samples.back().time < _sampleInterval) return;
  _trace.samples.push_back({time, _allBytes});
  thinOut(_trace.samples, _sampleInterval);
}

void TraceRecorder::requestStarted(std::uint32_t id, kovo_chunk_type type, std::uint32_t number) {
  const std::lock_guard<std::mutex> hold(_mutex);
  const double time = now();
  Lane& lane = laneOfThisThread();
  endRequest(lane, time);
  lane.running = static_cast<int>(_trace.requests.size());
  _trace.requests.push_back({id, lane.number, type, number, time, time, time, false, {}, 0});
}

void TraceRecorder::requestFailed(std::uint32_t, const RequestFailure& failure,
                                  std::optional<std::chrono::milliseconds> pause) {
  const std::lock_guard<std::mutex> hold(_mutex);
  Lane& lane = laneOfThisThread();
  if (lane.running < 0) return;
  Trace::Request& request = _trace.requests[static_cast<std::size_t>(lane.running)];
  request.end = now();
  request.seen = request.end;
  request.failed = true;
  request.message =
      (failure.httpStatus == 0 ? "" : "HTTP " + std::to_string(failure.httpStatus) + " ") +
      failure.message.substr(0, 200);
  if (pause) request.pause = std::chrono::duration<double>(*pause).count();
  lane.running = -1;
}

void TraceRecorder::measured(std::uint32_t, const Measurement& measurement) {
  const std::lock_guard<std::mutex> hold(_mutex);
  const double time = now();
  if (!_trace.workers.empty()) {
    const Trace::Workers& last = _trace.workers.back();
    const bool decided = last.measurement.targetWorkers != measurement.targetWorkers;
    if (!decided && time - last.time < _workersInterval) return;
  }
  _trace.workers.push_back({time, measurement});
  thinOut(_trace.workers, _workersInterval);
}

void TraceRecorder::endTransfer(std::uint32_t id, const std::string& outcome, std::uint64_t bytes) {
  const std::lock_guard<std::mutex> hold(_mutex);
  _ends[id] = now();
  for (Trace::Transfer& transfer : _trace.transfers) {
    if (transfer.id != id) continue;
    // A transfer in one request is not asked for headers of its own.
    const bool hasRequest =
        std::any_of(_trace.requests.begin(), _trace.requests.end(),
                    [id](const Trace::Request& request) { return request.transfer == id; });
    if (!hasRequest && outcome.empty()) {
      _trace.requests.push_back({id,
                                 _trace.lanes++,
                                 KOVO_CHUNK_TYPE_SINGLE,
                                 0,
                                 transfer.begin,
                                 now(),
                                 now(),
                                 false,
                                 {},
                                 0});
    }
    transfer.outcome = outcome;
    transfer.end = now();
    transfer.bytes = bytes != 0 ? bytes : _bytes[id];
  }
}

void TraceRecorder::completed(std::uint32_t id, const Completion& completion) {
  {
    const std::lock_guard<std::mutex> hold(_mutex);
    // The last bytes are rarely reported.
    std::uint64_t& known = _bytes[id];
    if (completion.moved > known) _allBytes += completion.moved - known;
    known = std::max(known, completion.moved);
    // Where the curve last rose, so that what was unreported makes no peak at the end.
    if (!_trace.samples.empty()) _trace.samples.back().bytes = _allBytes;
    _trace.samples.push_back({now(), _allBytes});
  }
  endTransfer(id, "", completion.bytes);
}

void TraceRecorder::failed(std::uint32_t id, const Failure& failure) {
  endTransfer(id, failure.what(), 0);
}

void TraceRecorder::skipped(std::uint32_t id, const std::string& why) {
  endTransfer(id, why, 0);
}

Trace TraceRecorder::take() {
  const std::lock_guard<std::mutex> hold(_mutex);
  const double time = now();
  for (auto& [thread, lane] : _lanes) endRequest(lane, time);
  _trace.duration = time;
  return _trace;
}

}  // namespace kovo::cli
