#include "log/deferred_log.h"

#include <string>
#include <utility>
#include <vector>

#include "log/format_message.h"
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

DeferredLog::~DeferredLog() noexcept(false) {
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
  pending.messages.push_back({function, file, line, level, formatMessage(format, arguments)});
  return true;
}

}  // namespace kovo
