#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "progress_line.h"

namespace kovo::cli {

// The lines of several transfers and of their total. A command with one transfer has no total.
class ProgressBoard {
 public:
  using Clock = ProgressLine::Clock;

  ProgressBoard() : _total("total") {}

  void add(std::uint32_t id, const std::string& label);
  // note replaces the rate while the transfer waits for something; empty: it runs.
  void update(std::uint32_t id, const ProgressState& state, const std::string& note);
  void remove(std::uint32_t id);
  // One that is not shown, or no longer, has ended.
  void fail() { ++_ended; }
  void complete(std::uint64_t bytes);

  // At most rows lines of at most columns for the transfers that run, of count in all.
  std::vector<std::string> lines(Clock::time_point now, int columns, int rows, std::uint32_t count);

 private:
  struct Entry {
    std::uint32_t id;
    std::string label;
    ProgressLine line;
    ProgressState state;
    std::string note;
  };

  std::vector<Entry> _entries;
  ProgressLine _total;
  std::uint64_t _bytesCompleted = 0;
  std::uint32_t _ended = 0;
};

}  // namespace kovo::cli
