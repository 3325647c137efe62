#pragma once

#include <kovo/kovo.h>

#include <cstdint>
#include <string>

#include "transfer.h"

namespace kovo::cli {

// One transfer of the command line: what it is called, how it begins, and what is left behind.
class Job {
 public:
  Job() = default;
  Job(const Job&) = delete;
  Job& operator=(const Job&) = delete;
  virtual ~Job() = default;

  virtual Transfer& transfer() = 0;
  virtual void start(kovo_instance instance) = 0;

  // What its line says; printable.
  virtual std::string label() const = 0;
  // The URL as the user gave it, and the words before it in an error: "cannot download".
  virtual const std::string& url() const = 0;
  virtual std::string doing() const = 0;
  // The file on this machine; printable, empty when there is none.
  virtual std::string file() const = 0;

  // Asked once, when the first bytes have come: bytes of the resource that earlier runs have left.
  virtual std::uint64_t storedBefore() const { return 0; }
  // After completion: the size of what was moved, and a word for its summary.
  virtual std::uint64_t size() const = 0;
  virtual std::string summaryNote() const { return {}; }
  // After a failure: how to go on. Also releases what the job holds open.
  virtual std::string settleFailed() { return {}; }
};

}  // namespace kovo::cli
