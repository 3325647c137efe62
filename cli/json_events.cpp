#include "json_events.h"

#include <strings.h>

#include <cstdio>

#include "failure.h"
#include "secrets.h"
#include "url_text.h"

namespace kovo::cli {

JsonObject JsonEvents::event(std::string_view name, std::uint32_t id) const {
  JsonObject object;
  object.add("event", name);
  object.addReal("time", std::chrono::duration<double>(Clock::now() - _begin).count());
  object.add("id", std::uint64_t{id});
  return object;
}

void JsonEvents::print(const JsonObject& object) {
  const std::string line = object.text() + "\n";
  const std::lock_guard<std::mutex> hold(_mutex);
  std::fwrite(line.data(), 1, line.size(), stdout);
  std::fflush(stdout);
}

void JsonEvents::started(std::uint32_t id, const std::string& url, const std::string& file) {
  JsonObject object = event("started", id);
  object.add("url", displayUrl(url));
  if (!file.empty()) object.add("file", file);
  print(object);
}

void JsonEvents::answered(std::uint32_t id, std::uint32_t status, const std::string& reason,
                          const HeaderList& headers) {
  JsonObject fields;
  for (const auto& [name, value] : headers) {
    const bool isUrl = ::strcasecmp(name.c_str(), "Location") == 0 ||
                       ::strcasecmp(name.c_str(), "Content-Location") == 0;
    const std::string quoted = jsonString(name);
    fields.addRaw(quoted.substr(1, quoted.size() - 2), jsonString(isSecretHeader(name) ? "***"
                                                                  : isUrl ? displayUrl(value)
                                                                          : value));
  }
  JsonObject object = event("headers", id);
  object.add("status", std::uint64_t{status}).add("reason", reason);
  object.addRaw("headers", fields.text());
  print(object);
}

void JsonEvents::progressed(std::uint32_t id, std::uint64_t bytes, std::uint64_t total) {
  constexpr std::chrono::milliseconds kInterval{100};
  {
    const std::lock_guard<std::mutex> hold(_mutex);
    const Clock::time_point now = Clock::now();
    Clock::time_point& next = _nextProgress[id];
    if (now < next) return;
    next = now + kInterval;
  }
  JsonObject object = event("progress", id);
  object.add("bytes", bytes);
  if (total != 0) object.add("total", total);
  print(object);
}

void JsonEvents::requestFailed(std::uint32_t id, const RequestFailure& failure,
                               std::optional<std::chrono::milliseconds> pause) {
  if (!pause) return;  // the transfer's end tells it
  JsonObject object = event("retry", id);
  object.add("chunk", std::uint64_t{failure.number});
  if (failure.httpStatus != 0) object.add("status", std::uint64_t{failure.httpStatus});
  object.add("message", failure.message);
  object.addReal("pause", std::chrono::duration<double>(*pause).count());
  print(object);
}

void JsonEvents::verifying(std::uint32_t id) {
  print(event("verifying", id));
}

void JsonEvents::completed(std::uint32_t id, const Completion& completion) {
  JsonObject object = event("done", id);
  if (!completion.file.empty()) object.add("file", completion.file);
  object.add("bytes", completion.bytes);
  object.addReal("seconds", std::chrono::duration<double>(completion.took).count());
  print(object);
}

void JsonEvents::failed(std::uint32_t id, const Failure& failure) {
  JsonObject object = event("error", id);
  object.add("exitCode", static_cast<std::uint64_t>(failure.code));
  object.add("message", failure.what()).add("advice", failure.advice);
  print(object);
}

void JsonEvents::skipped(std::uint32_t id, const std::string& why) {
  print(event("skipped", id).add("message", why));
}

}  // namespace kovo::cli
