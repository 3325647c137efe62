#include "progress_line.h"

#include <wchar.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cwchar>
#include <vector>

#include "quantity.h"

namespace kovo::cli {

namespace {

// The rate is that of the last seconds: steady enough to read, quick enough to follow a change.
constexpr std::chrono::seconds kRateWindow{4};

// One character of text at offset: its bytes and columns.
struct Character {
  std::size_t bytes;
  int columns;
};

Character characterAt(const std::string& text, std::size_t offset) {
  std::mbstate_t state{};
  wchar_t wide = 0;
  const std::size_t bytes = std::mbrtowc(&wide, text.data() + offset, text.size() - offset, &state);
  if (bytes == 0 || bytes > text.size()) return {1, 1};
  return {bytes, std::max(::wcwidth(wide), 0)};
}

std::string rightAligned(const std::string& text, std::size_t columns) {
  return text.size() >= columns ? text : std::string(columns - text.size(), ' ') + text;
}

std::string bar(int columns, double part) {
  const int inner = columns - 2;
  const int full = std::clamp(static_cast<int>(inner * part), 0, inner);
  std::string text = "[" + std::string(static_cast<std::size_t>(full), '=');
  if (full < inner) text += '>' + std::string(static_cast<std::size_t>(inner - full - 1), ' ');
  return text + "]";
}

}  // namespace

int displayWidth(const std::string& text) {
  int columns = 0;
  for (std::size_t at = 0; at < text.size();) {
    const Character character = characterAt(text, at);
    columns += character.columns;
    at += character.bytes;
  }
  return columns;
}

std::string fitted(const std::string& text, int columns) {
  const int width = displayWidth(text);
  if (width <= columns) return text + std::string(static_cast<std::size_t>(columns - width), ' ');
  const int dots = std::min(3, columns);
  std::string kept;
  int used = 0;
  for (std::size_t at = 0; at < text.size();) {
    const Character character = characterAt(text, at);
    if (used + character.columns > columns - dots) break;
    kept.append(text, at, character.bytes);
    used += character.columns;
    at += character.bytes;
  }
  return kept + std::string(static_cast<std::size_t>(dots), '.') +
         std::string(static_cast<std::size_t>(columns - dots - used), ' ');
}

double ProgressLine::bytesPerSecond(std::uint64_t bytes, Clock::time_point now) {
  _samples.push_back({now, bytes});
  while (_samples.size() > 2 && now - _samples[1].time >= kRateWindow) _samples.pop_front();
  const Sample& first = _samples.front();
  const double seconds = std::chrono::duration<double>(now - first.time).count();
  if (seconds <= 0.05 || bytes <= first.bytes) return 0;
  return static_cast<double>(bytes - first.bytes) / seconds;
}

std::string ProgressLine::text(const ProgressState& state, Clock::time_point now, int columns,
                               const std::string& note) {
  const double rate = bytesPerSecond(state.bytesDone, now);
  const bool sized = state.bytesTotal != 0;
  const std::uint64_t done = sized ? std::min(state.bytesDone, state.bytesTotal) : state.bytesDone;
  const double part = sized ? static_cast<double>(done) / static_cast<double>(state.bytesTotal) : 0;

  // Ordered as they stand in the line; a higher rank gives way earlier when the line is narrow.
  struct Part {
    std::string text;
    int rank;
  };
  std::vector<Part> parts;
  const int percent = std::min(static_cast<int>(part * 100), 100);
  if (sized) {
    parts.push_back({rightAligned(std::to_string(percent) + "%", 4), 0});
    parts.push_back(
        {rightAligned(formatBytes(done), 9) + " of " + formatBytes(state.bytesTotal), 5});
  } else {
    parts.push_back({rightAligned(formatBytes(done), 9), 0});
  }
  if (!note.empty()) {
    parts.push_back({note, 1});
  } else {
    parts.push_back({rightAligned(formatBytes(static_cast<std::uint64_t>(rate)) + "/s", 11), 1});
    if (sized) {
      const double left = rate > 0 ? static_cast<double>(state.bytesTotal - done) / rate : 1.0e9;
      const std::chrono::seconds seconds(std::llround(std::min(left, 1.0e9)));
      parts.push_back({rightAligned(formatDuration(seconds), 7) + " left", 2});
    }
    parts.push_back({rightAligned(std::to_string(state.connections), 2) + " conn", 4});
  }

  constexpr int kGap = 2;
  constexpr int kShortestName = 12;
  constexpr int kShortestBar = 12;
  constexpr int kLongestBar = 42;
  const auto widthOf = [&](int rank) {
    int width = 0;
    for (const Part& one : parts) {
      if (one.rank <= rank) width += displayWidth(one.text) + kGap;
    }
    return width;
  };
  // The bar ranks between the time left and the connections.
  constexpr int kBarRank = 3;
  int rank = 6;
  while (rank > 0) {
    const int needed =
        kShortestName + widthOf(rank) + (sized && rank >= kBarRank ? kShortestBar + kGap : 0);
    if (needed <= columns) break;
    --rank;
  }
  int room = columns - widthOf(rank);
  std::string line;
  if (room >= kShortestName) {
    const bool withBar = sized && rank >= kBarRank;
    const int longestName = std::max(kShortestName, columns / 3);
    const int forName = std::clamp(
        displayWidth(_name), 1, std::min(longestName, room - (withBar ? kShortestBar + kGap : 0)));
    line = fitted(_name, forName);
    room -= forName;
    if (withBar) {
      line += std::string(kGap, ' ') + bar(std::min(room - kGap, kLongestBar), part);
    }
  }
  for (const Part& one : parts) {
    if (one.rank > rank) continue;
    if (!line.empty()) line.append(kGap, ' ');
    line += one.text;
  }
  return displayWidth(line) > columns ? fitted(line, std::max(columns, 0)) : line;
}

std::string summaryLine(const std::string& name, std::uint64_t bytes,
                        ProgressLine::Clock::duration took, int columns, const std::string& note) {
  const double seconds = std::max(std::chrono::duration<double>(took).count(), 0.001);
  const auto rate = static_cast<std::uint64_t>(static_cast<double>(bytes) / seconds);
  const std::chrono::seconds shown(std::llround(seconds));
  std::string line = name + "  " + formatBytes(bytes) + " in " + formatDuration(shown) + ", " +
                     formatBytes(rate) + "/s";
  if (!note.empty()) line += ", " + note;
  return displayWidth(line) > columns ? fitted(line, std::max(columns, 0)) : line;
}

}  // namespace kovo::cli
