#include "progress_line.h"

#include <wchar.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cwchar>

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

int percentOf(const ProgressState& state) {
  const double part = static_cast<double>(state.bytesDone) / static_cast<double>(state.bytesTotal);
  return static_cast<int>(std::min(part * 100, 100.0));
}

std::string bar(int columns, int percent) {
  const int inner = columns - 2;
  const int full = std::clamp(inner * percent / 100, 0, inner);
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

std::vector<ProgressLine::Part> ProgressLine::parts(const ProgressState& state, double rate,
                                                    const std::string& note, bool aligned) {
  const bool sized = state.bytesTotal != 0;
  const std::uint64_t done = sized ? std::min(state.bytesDone, state.bytesTotal) : state.bytesDone;
  // A line among others keeps the places of what it does not show.
  const auto absent = [aligned](int columns) {
    return std::string(static_cast<std::size_t>(aligned ? columns : 0), ' ');
  };
  std::string left = absent(12);
  std::string connections = absent(7);
  std::string speed = note;
  if (note.empty()) {
    speed = formatBytes(static_cast<std::uint64_t>(rate)) + "/s";
    if (sized) {
      const double wait = rate > 0 ? static_cast<double>(state.bytesTotal - done) / rate : 1.0e9;
      const std::chrono::seconds seconds(std::llround(std::min(wait, 1.0e9)));
      left = rightAligned(formatDuration(seconds), 7) + " left";
    }
    if (state.connections != 0) {
      connections = rightAligned(std::to_string(state.connections), 2) + " conn";
    }
  }
  const std::string amount = rightAligned(formatBytes(done), 9);
  std::vector<Part> all;
  if (sized) {
    all.push_back({rightAligned(std::to_string(percentOf(state)) + "%", 4), 0});
    const std::string total = formatBytes(state.bytesTotal);
    all.push_back({amount + " of " + (aligned ? rightAligned(total, 9) : total), 5});
  } else {
    all.push_back({absent(4), 0});
    all.push_back({amount + absent(13), aligned ? 5 : 0});
  }
  all.push_back({rightAligned(speed, 11), 1});
  all.push_back({left, 2});
  all.push_back({connections, 4});
  return all;
}

std::string ProgressLine::text(const ProgressState& state, Clock::time_point now, int columns,
                               const std::string& note, int names) {
  const double rate = bytesPerSecond(state.bytesDone, now);
  const bool aligned = names != 0;
  const bool sized = state.bytesTotal != 0;
  const std::vector<Part> all = parts(state, rate, note, aligned);

  constexpr int kGap = 2;
  constexpr int kShortestName = 12;
  constexpr int kShortestBar = 12;
  constexpr int kLongestBar = 42;
  const auto widthOf = [&](int rank) {
    int width = 0;
    for (const Part& one : all) {
      if (one.rank <= rank && !one.text.empty()) width += displayWidth(one.text) + kGap;
    }
    return width;
  };
  // The bar ranks between the time left and the connections.
  constexpr int kBarRank = 3;
  const auto hasBar = [&](int rank) { return (sized || aligned) && rank >= kBarRank; };
  int rank = 6;
  while (rank > 0 &&
         kShortestName + widthOf(rank) + (hasBar(rank) ? kShortestBar + kGap : 0) > columns) {
    --rank;
  }
  int room = columns - widthOf(rank);
  std::string line;
  if (room >= kShortestName) {
    const int longestName = std::max(kShortestName, columns / 3);
    const int forName =
        std::clamp(std::max(displayWidth(_name), names), 1,
                   std::min(longestName, room - (hasBar(rank) ? kShortestBar + kGap : 0)));
    line = fitted(_name, forName);
    room -= forName;
    if (hasBar(rank)) {
      const int width = std::min(room - kGap, kLongestBar);
      line += std::string(kGap, ' ') + (sized ? bar(width, percentOf(state))
                                              : std::string(static_cast<std::size_t>(width), ' '));
    }
  }
  for (const Part& one : all) {
    if (one.rank > rank || one.text.empty()) continue;
    if (!line.empty()) line.append(kGap, ' ');
    line += one.text;
  }
  return displayWidth(line) > columns ? fitted(line, std::max(columns, 0)) : line;
}

std::string summaryLine(const std::string& name, std::uint64_t bytes,
                        ProgressLine::Clock::duration took, int columns, const std::string& note) {
  const double seconds = std::max(std::chrono::duration<double>(took).count(), 0.001);
  const auto rate = static_cast<std::uint64_t>(static_cast<double>(bytes) / seconds);
  std::string time = formatDuration(std::chrono::seconds(std::llround(seconds)));
  if (seconds < 60) {
    const long long tenths = std::llround(seconds * 10);
    time = std::to_string(tenths / 10) + "." + std::to_string(tenths % 10) + " s";
  }
  std::string line =
      name + "  " + formatBytes(bytes) + " in " + time + ", " + formatBytes(rate) + "/s";
  if (!note.empty()) line += ", " + note;
  return displayWidth(line) > columns ? fitted(line, std::max(columns, 0)) : line;
}

}  // namespace kovo::cli
