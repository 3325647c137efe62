#pragma once

#include <string>
#include <string_view>
#include <utility>

#include "trace_recorder.h"

namespace kovo::cli {

// A trace as one HTML page that needs nothing else: its data as JSON, and a script that draws it.
class TracePage {
 public:
  explicit TracePage(Trace trace) : _trace(std::move(trace)) {}

  std::string html() const;
  // Throws Failure when path is a file other than an earlier trace.
  static void requireReplaceable(const std::string& path);
  // Replaces the file. Throws Failure.
  void write(const std::string& path) const;

 private:
  std::string data() const;

  const Trace _trace;
};

// The page's fixed texts.
std::string_view traceStyle();
std::string_view traceMarkup();
std::string_view traceScript();

}  // namespace kovo::cli
