#include "terminal.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <string_view>
#include <thread>
#include <utility>

#include "progress_line.h"

namespace kovo::cli {

namespace {

constexpr int kOutput = STDERR_FILENO;
constexpr std::string_view kHideCursor = "\033[?25l";
constexpr std::string_view kShowCursor = "\033[?25h";

bool isUsableTerminal() {
  if (::isatty(kOutput) != 1) return false;
  const char* const kind = std::getenv("TERM");
  return kind == nullptr || std::string_view(kind) != "dumb";
}

void writeAll(std::string_view text) {
  while (!text.empty()) {
    const ssize_t written = ::write(kOutput, text.data(), text.size());
    if (written <= 0) return;  // nobody reads; there is no better place to tell it
    text.remove_prefix(static_cast<std::size_t>(written));
  }
}

}  // namespace

std::mutex Terminal::_writing;
bool Terminal::_cursorHidden = false;

Terminal::Terminal(ProgressMode mode)
    : _isTerminal(isUsableTerminal()),
      _shows(mode == ProgressMode::kAlways || (mode == ProgressMode::kAuto && _isTerminal)) {}

Terminal::~Terminal() {
  clearLines();
  const std::lock_guard<std::mutex> hold(_writing);
  showCursor();
}

int Terminal::usableColumns() const {
  struct winsize size {};
  if (::ioctl(kOutput, TIOCGWINSZ, &size) == 0 && size.ws_col > 0) return size.ws_col - 1;
  return 79;
}

int Terminal::usableRows() const {
  struct winsize size {};
  if (::ioctl(kOutput, TIOCGWINSZ, &size) == 0 && size.ws_row > 2) return size.ws_row - 2;
  return _isTerminal ? 1 : 24;
}

std::string Terminal::toFirstLine() const {
  return _rowsAbove == 0 ? "\r" : "\r\033[" + std::to_string(_rowsAbove) + "A";
}

void Terminal::draw(const std::vector<std::string>& lines) {
  if (!_shows || lines.empty() || lines == _drawn) return;
  if (!_isTerminal) {
    const auto now = std::chrono::steady_clock::now();
    if (now < _nextPlainLine) return;
    _nextPlainLine = now + std::chrono::seconds(2);
    writeAll(lines.back() + "\n");
    return;
  }
  // A background job that writes would mix into what the foreground job shows.
  if (::tcgetpgrp(kOutput) != ::getpgrp()) return;
  const std::lock_guard<std::mutex> hold(_writing);
  std::string out;
  if (!std::exchange(_cursorHidden, true)) out += kHideCursor;
  if (!_drawn.empty()) out += toFirstLine();
  // The text first and the rest of the old line after it: nothing is ever blank in between.
  for (std::size_t i = 0; i < lines.size(); ++i) {
    out.append(i == 0 ? "\r" : "\r\n").append(lines[i]).append("\033[K");
  }
  if (_drawn.size() > lines.size()) out += "\033[J";
  writeAll(out);
  _drawn = lines;
  _rowsAbove = static_cast<int>(lines.size()) - 1;
}

void Terminal::writeAbove(const std::string& text) {
  const std::lock_guard<std::mutex> hold(_writing);
  if (_drawn.empty()) {
    writeAll(text + "\n");
    return;
  }
  // In one piece with the lines that move down, so that nothing flickers.
  const std::vector<std::string> lines = std::move(_drawn);
  std::string out = toFirstLine();
  for (const char c : text) out += c == '\n' ? std::string("\033[K\r\n") : std::string(1, c);
  out += "\033[K\r\n";
  for (std::size_t i = 0; i < lines.size(); ++i) {
    out.append(i == 0 ? "" : "\r\n").append(lines[i]).append("\033[K");
  }
  writeAll(out + "\033[J");
  _drawn = lines;
  _rowsAbove = static_cast<int>(lines.size()) - 1;
}

void Terminal::print(const std::string& line) {
  if (_shows) writeAbove(line);
}

void Terminal::message(const std::string& text) {
  writeAbove(text);
}

void Terminal::clearLines() {
  if (!_drawn.empty()) {
    const std::lock_guard<std::mutex> hold(_writing);
    writeAll(toFirstLine() + "\033[J");
  }
  forgetLines();
}

void Terminal::forgetLines() {
  _drawn.clear();
  _rowsAbove = 0;
}

void Terminal::resized() {
  if (_drawn.empty()) return;
  // A terminal that became narrower has broken each line into as many rows as it now needs.
  const int columns = usableColumns() + 1;
  int rows = 0;
  for (const std::string& line : _drawn) rows += std::max(displayWidth(line) - 1, 0) / columns + 1;
  _rowsAbove = std::max(rows - 1, 0);
  clearLines();
}

void Terminal::showCursor() {
  if (std::exchange(_cursorHidden, false)) writeAll(kShowCursor);
}

Terminal::Pause::Pause() {
  // A terminal that takes nothing any more (Ctrl-S) must not keep the process from ending.
  for (int tries = 0; !_held && tries < 20; ++tries) {
    _held = _writing.try_lock();
    if (!_held) std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  if (_held) showCursor();
}

Terminal::Pause::~Pause() {
  if (_held) _writing.unlock();
}

}  // namespace kovo::cli
