#include "log/deferred_log.h"

#include <cstdio>
#include <string>
#include <utility>
#include <vector>

#include "log/kovo_log.h"

namespace kovo {
namespace {

struct Message {
  const char* function;
  const char* file;
  std::uint32_t line;
  std::uint32_t level;
  std::string text;
};

struct Pending {
  std::uint32_t depth = 0;
  std::vector<Message> messages;
};

thread_local Pending pending;

}  // namespace

DeferredLog::DeferredLog() {
  ++pending.depth;
}

DeferredLog::~DeferredLog() {
  if (--pending.depth != 0 || pending.messages.empty()) {
    return;
  }
  // Taken out first: the client's logging callback may come back here.
  const std::vector<Message> messages = std::exchange(pending.messages, {});
  for (const Message& message : messages) {
    kovoLog(message.function, message.file, message.line, message.level, "%s",
            message.text.c_str());
  }
}

bool DeferredLog::keep(const char* function, const char* file, std::uint32_t line,
                       std::uint32_t level, const char* format, std::va_list arguments) {
  if (pending.depth == 0) {
    return false;
  }
  std::va_list again;
  va_copy(again, arguments);
  const int length = std::vsnprintf(nullptr, 0, format, again);
  va_end(again);
  std::string text(length > 0 ? static_cast<std::size_t>(length) : 0, '\0');
  if (length > 0) {
    std::vsnprintf(text.data(), text.size() + 1, format, arguments);
  }
  pending.messages.push_back({function, file, line, level, std::move(text)});
  return true;
}

}  // namespace kovo
