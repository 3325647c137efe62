#include "trace_page.h"

#include <kovo/kovo.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>

#include "failure.h"
#include "json_text.h"
#include "safe_text.h"

namespace kovo::cli {

namespace {

// "[1,2.5,...]" of one entry each.
template <typename Entries, typename Text>
std::string jsonList(const Entries& entries, Text&& text) {
  std::string list = "[";
  for (const auto& entry : entries) {
    if (list.size() > 1) list += ",";
    list += text(entry);
  }
  return list + "]";
}

// Milliseconds with a fraction: enough for a picture.
std::string ms(double seconds) {
  return jsonReal(seconds * 1000);
}

}  // namespace

std::string TracePage::data() const {
  JsonObject object;
  object.add("version", kovoVersion()).addRaw("duration", ms(_trace.duration));
  object.add("lanes", std::uint64_t{_trace.lanes});
  object.addRaw(
      "transfers", jsonList(_trace.transfers, [](const Trace::Transfer& one) {
        JsonObject transfer;
        transfer.add("id", std::uint64_t{one.id}).add("url", one.url).add("file", one.file);
        transfer.add("outcome", one.outcome).add("bytes", one.bytes);
        transfer.addRaw("begin", ms(one.begin)).addRaw("end", ms(one.end));
        return transfer.text();
      }));
  object.addRaw("requests", jsonList(_trace.requests, [](const Trace::Request& one) {
                  return "[" + std::to_string(one.transfer) + "," + std::to_string(one.lane) + "," +
                         std::to_string(one.type) + "," + std::to_string(one.number) + "," +
                         ms(one.begin) + "," + ms(one.end) + "," + ms(one.seen) +
                         (one.failed ? ",1," + ms(one.pause) + "," + jsonString(one.message) : "") +
                         "]";
                }));
  object.addRaw("samples", jsonList(_trace.samples, [](const Trace::Sample& one) {
                  return "[" + ms(one.time) + "," + std::to_string(one.bytes) + "]";
                }));
  object.addRaw("workers", jsonList(_trace.workers, [](const Trace::Workers& one) {
                  const Measurement& m = one.measurement;
                  return "[" + ms(one.time) + "," + std::to_string(m.workers) + "," +
                         std::to_string(m.targetWorkers) + "," + (m.adaptive ? "1" : "0") + "," +
                         std::to_string(m.reason) + "," + std::to_string(m.bytesPerSecond) + "]";
                }));
  return object.text();
}

std::string TracePage::html() const {
  std::string page =
      "<!DOCTYPE html>\n<html lang=\"en\">\n<head>\n<meta charset=\"utf-8\">\n"
      "<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\">\n"
      "<title>kovo trace</title>\n<style>";  // requireReplaceable looks for the title
  page.append(traceStyle()).append("</style>\n</head>\n<body>\n").append(traceMarkup());
  page.append("<script type=\"application/json\" id=\"data\">").append(data());
  page.append("</script>\n<script>").append(traceScript()).append("</script>\n</body>\n</html>\n");
  return page;
}

void TracePage::requireReplaceable(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  if (!file.is_open()) return;
  std::string beginning(512, '\0');
  file.read(beginning.data(), static_cast<std::streamsize>(beginning.size()));
  if (file.gcount() == 0 || beginning.find("<title>kovo trace<") != std::string::npos) return;
  throw Failure(ExitCode::kFileExists, printable(path) + " exists already, and is no trace",
                "Choose another name for --trace.");
}

void TracePage::write(const std::string& path) const {
  errno = 0;
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  file << html();
  file.close();
  if (!file) {
    throw Failure(ExitCode::kFile,
                  "cannot write the trace " + printable(path) + ": " + std::strerror(errno));
  }
}

}  // namespace kovo::cli
