#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <string>
#include <vector>

namespace kovo::cli {

// What is known of a transfer at one moment.
struct ProgressState {
  std::uint64_t bytesDone = 0;    // with those of earlier runs
  std::uint64_t bytesTotal = 0;   // 0: unknown
  std::uint32_t connections = 0;  // 0: not shown
};

// The text of one transfer's progress line: parts of a fixed width, so that nothing moves, and as
// many of them as fit.
class ProgressLine {
 public:
  using Clock = std::chrono::steady_clock;

  explicit ProgressLine(const std::string& name) : _name(name) {}

  // At most columns wide. note replaces rate and time left while the transfer waits for something.
  // names: the columns of the longest name that stands above or below; 0: this line is alone.
  std::string text(const ProgressState& state, Clock::time_point now, int columns,
                   const std::string& note = {}, int names = 0);
  void rename(const std::string& name) { _name = name; }

 private:
  struct Sample {
    Clock::time_point time;
    std::uint64_t bytes;
  };

  // Ordered as they stand in the line; a higher rank gives way earlier when the line is narrow.
  struct Part {
    std::string text;
    int rank;
  };

  static std::vector<Part> parts(const ProgressState& state, double rate, const std::string& note,
                                 bool aligned);
  double bytesPerSecond(std::uint64_t bytes, Clock::time_point now);

  std::string _name;
  std::deque<Sample> _samples;
};

// What stands where the line was once the transfer is complete, at most columns wide.
std::string summaryLine(const std::string& name, std::uint64_t bytes,
                        ProgressLine::Clock::duration took, int columns,
                        const std::string& note = {});

// text padded or cut to exactly columns on a terminal; what is cut ends in "...".
std::string fitted(const std::string& text, int columns);
// How many columns a terminal needs for text; bytes that are no character count as one.
int displayWidth(const std::string& text);

}  // namespace kovo::cli
