#pragma once

#include <memory>
#include <mutex>
#include <set>
#include <string>

#include "get_options.h"
#include "job.h"
#include "ordered_output.h"
#include "signal_watch.h"

namespace kovo::cli {

// The files that the URLs of one command are for, so that none overwrites that of another.
class NameClaims {
 public:
  // Throws Failure when another URL has the name.
  void claim(const std::string& path);

 private:
  std::mutex _mutex;
  std::set<std::string> _taken;
};

// What the jobs of one command share; all of it outlives them.
struct GetSession {
  const GetOptions& options;
  EventGate& gate;
  const SignalWatch& signals;
  TransferObserver& observer;
  NameClaims& claims;
  bool severalUrls;
};

// The job that downloads url into its file, or with --range a part of it. Throws Failure.
std::unique_ptr<Job> makeFileJob(const GetSession& session, std::uint32_t id,
                                 const std::string& url);

// The job that writes url to standard output.
std::unique_ptr<Job> makeStdoutJob(const GetSession& session, std::uint32_t id,
                                   const std::string& url);

}  // namespace kovo::cli
