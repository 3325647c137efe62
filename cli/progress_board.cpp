#include "progress_board.h"

#include <algorithm>

namespace kovo::cli {

void ProgressBoard::add(std::uint32_t id, const std::string& label) {
  _entries.push_back({id, label, ProgressLine(label), {}, {}});
}

void ProgressBoard::update(std::uint32_t id, const ProgressState& state, const std::string& note) {
  for (Entry& entry : _entries) {
    if (entry.id != id) continue;
    entry.state = state;
    entry.note = note;
  }
}

void ProgressBoard::remove(std::uint32_t id) {
  _entries.erase(std::remove_if(_entries.begin(), _entries.end(),
                                [id](const Entry& entry) { return entry.id == id; }),
                 _entries.end());
}

void ProgressBoard::complete(std::uint64_t bytes) {
  _bytesCompleted += bytes;
  ++_ended;
}

std::vector<std::string> ProgressBoard::lines(Clock::time_point now, int columns, int rows,
                                              std::uint32_t count) {
  std::vector<std::string> lines;
  if (count == 1) {
    for (Entry& entry : _entries) {
      lines.push_back(entry.line.text(entry.state, now, columns, entry.note));
    }
    return lines;
  }
  ProgressState total;
  total.bytesDone = _bytesCompleted;
  total.bytesTotal = _bytesCompleted;
  // One column for all names, so that the lines stand in columns.
  int names = displayWidth("total");
  bool sized = _entries.size() + _ended == count;
  for (const Entry& entry : _entries) {
    total.bytesDone += entry.state.bytesDone;
    total.bytesTotal += entry.state.bytesTotal;
    total.connections = std::max(total.connections, entry.state.connections);
    sized = sized && entry.state.bytesTotal != 0;
    names = std::max(names, displayWidth(entry.label));
  }
  if (!sized) total.bytesTotal = 0;
  const auto shown =
      std::min<std::size_t>(_entries.size(), static_cast<std::size_t>(std::max(rows - 1, 0)));
  for (std::size_t i = 0; i < shown; ++i) {
    Entry& entry = _entries[i];
    entry.state.connections = 0;  // the engine's figure stands for all of them
    lines.push_back(entry.line.text(entry.state, now, columns, entry.note, names));
  }
  _total.rename(std::to_string(_ended) + " of " + std::to_string(count));
  lines.push_back(_total.text(total, now, columns, {}, names));
  return lines;
}

}  // namespace kovo::cli
