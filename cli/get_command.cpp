#include <string>
#include <vector>

#include "command.h"
#include "get_job.h"
#include "get_options.h"
#include "session.h"
#include "url_text.h"

namespace kovo::cli {

namespace {

ExitCode runGet(const std::vector<std::string>& arguments) {
  GetOptions options;
  const std::vector<std::string> urls = options.urls(options.table().parse(arguments));

  Session session(options.common);
  EngineOptions engineOptions = options.common.engineOptions(session.terminal());
  engineOptions.chunkSize = options.chunkSize;
  engineOptions.downloadBytesPerSecond = options.common.bytesPerSecond;
  engineOptions.rangeCache = options.rangeCache;
  engineOptions.inTurn = urls.size() > 1;

  NameClaims claims;
  const GetSession shared{options, session.gate(), session.signals(), session.observer(),
                          claims,  urls.size() > 1};
  return session.run(engineOptions, static_cast<std::uint32_t>(urls.size()), options.parallel,
                     [&](std::uint32_t id) {
                       const std::string& url = urls[id - 1];
                       if (options.toStdout) return makeStdoutJob(shared, id, url);
                       try {
                         return makeFileJob(shared, id, url);
                       } catch (const Failure& failure) {
                         if (!shared.severalUrls) throw;
                         throw Failure(failure.code,
                                       std::string(failure.what()) + "\n  for " + displayUrl(url),
                                       failure.advice);
                       }
                     });
}

std::string getHelp() {
  GetOptions options;
  return "Usage: kovo get URL... [options]\n\n"
         "Downloads each URL into a file named after the last part of its path, with\n"
         "several requests at once. The bytes gather in FILE._kstmp, which becomes FILE\n"
         "when they are complete; running an interrupted command again resumes. An\n"
         "existing FILE is left alone unless --force is given. When a URL fails the others\n"
         "still run, and the exit status is that of the first one, in their order, that\n"
         "failed.\n\n" +
         options.table().help();
}

}  // namespace

Command getCommand() {
  return {"get", "download URLs into files", &runGet, &getHelp};
}

}  // namespace kovo::cli
