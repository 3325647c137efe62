#pragma once

#include <atomic>
#include <string>

namespace kovo::cli {

enum class ProgressMode { kAuto, kAlways, kNever };

// Standard error as the place of one line that changes in place, and of messages above it.
class Terminal {
 public:
  explicit Terminal(ProgressMode mode);
  Terminal(const Terminal&) = delete;
  Terminal& operator=(const Terminal&) = delete;
  ~Terminal();

  // Whether progress is shown at all.
  bool showsProgress() const { return _shows; }
  // How wide a line may be; one less than the window, because a full line makes it scroll.
  int usableColumns() const;

  // Shows text in place of the last drawn line; nothing when it is the same, or when another job
  // owns the terminal.
  void draw(const std::string& text);
  // Leaves text standing where the drawn line was.
  void finish(const std::string& text);
  // A message on lines of its own; the drawn line is taken away first.
  void message(const std::string& text);

  // Gives the cursor back; may be called on any thread, at any moment before the process ends.
  static void restoreAtOnce();

 private:
  void erase();

  const bool _isTerminal;
  const bool _shows;
  std::string _drawn;
  static std::atomic<bool> _cursorHidden;
};

}  // namespace kovo::cli
