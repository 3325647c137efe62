#pragma once

#include <chrono>
#include <mutex>
#include <string>
#include <vector>

namespace kovo::cli {

enum class ProgressMode { kAuto, kAlways, kNever };

// Standard error as the place of lines that change in place, and of messages above them. Where it
// is no terminal, what would change in place is printed now and then as lines of its own.
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
  // How many lines may change in place.
  int usableRows() const;

  // Shows the lines in place of those drawn last; nothing when they are the same, or when another
  // job owns the terminal.
  void draw(const std::vector<std::string>& lines);
  // Leaves a line standing above the drawn ones.
  void print(const std::string& line);
  // A message on lines of its own above the drawn ones.
  void message(const std::string& text);
  // Takes the drawn lines away.
  void clearLines();
  // Others have written to the terminal: what was drawn stays where it is.
  void forgetLines();
  // The window has another size: what was drawn may stand on other rows now.
  void resized();

  // While one lives, the cursor is given back and nothing is drawn. On any thread, before the
  // process ends or stops.
  class Pause {
   public:
    Pause();
    ~Pause();
    Pause(const Pause&) = delete;
    Pause& operator=(const Pause&) = delete;

   private:
    bool _held = false;
  };

 private:
  static void showCursor();
  std::string toFirstLine() const;
  void writeAbove(const std::string& text);

  const bool _isTerminal;
  const bool _shows;
  std::vector<std::string> _drawn;
  // Rows from the first drawn line to the cursor.
  int _rowsAbove = 0;
  std::chrono::steady_clock::time_point _nextPlainLine;

  // Held while something is written, and by a pause.
  static std::mutex _writing;
  static bool _cursorHidden;
};

}  // namespace kovo::cli
