#include "terminal.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <cstdlib>
#include <string_view>

namespace kovo::cli {

namespace {

constexpr int kOutput = STDERR_FILENO;
constexpr std::string_view kEraseLine = "\r\033[K";
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

std::atomic<bool> Terminal::_cursorHidden = false;

Terminal::Terminal(ProgressMode mode)
    : _isTerminal(isUsableTerminal()),
      _shows(mode == ProgressMode::kAlways || (mode == ProgressMode::kAuto && _isTerminal)) {}

Terminal::~Terminal() {
  erase();
  restoreAtOnce();
}

int Terminal::usableColumns() const {
  struct winsize size {};
  if (::ioctl(kOutput, TIOCGWINSZ, &size) == 0 && size.ws_col > 0) return size.ws_col - 1;
  return 79;
}

void Terminal::draw(const std::string& text) {
  if (!_shows || text == _drawn) return;
  // A background job that writes would mix into what the foreground job shows.
  if (_isTerminal && ::tcgetpgrp(kOutput) != ::getpgrp()) return;
  std::string out;
  if (_isTerminal && !_cursorHidden.exchange(true)) out += kHideCursor;
  // The text first and the rest of the old line after it: nothing is ever blank in between.
  out.append("\r").append(text).append("\033[K");
  writeAll(out);
  _drawn = text;
}

void Terminal::finish(const std::string& text) {
  if (!_shows) return;
  writeAll("\r" + text + "\033[K\n");
  _drawn.clear();
  restoreAtOnce();
}

void Terminal::message(const std::string& text) {
  erase();
  writeAll(text + "\n");
}

void Terminal::erase() {
  if (_drawn.empty()) return;
  writeAll(kEraseLine);
  _drawn.clear();
}

void Terminal::restoreAtOnce() {
  if (_cursorHidden.exchange(false)) writeAll(kShowCursor);
}

}  // namespace kovo::cli
