#pragma once

#include <cstdint>
#include <string>

#include "file_descriptor.h"

namespace kovo::cli {

// The file a download is for: the bytes gather in a file beside it, which takes the final name only
// when they are complete and on the disk.
class DownloadTarget {
 public:
  enum class Existing { kRefuse, kReplace, kSkip };
  // "<file>._kstmp": gone on with, or emptied first. "<file>._ksrange": of no use once the download
  // has failed.
  enum class Partial { kContinue, kAfresh, kThrowAway };

  // Throws Failure when the final file exists and must not be replaced, the folder is not there, or
  // another download fills the same partial file. With kSkip, a final file that exists is a Failure
  // of code kOk.
  DownloadTarget(std::string finalPath, Existing existing, Partial partial);
  DownloadTarget(const DownloadTarget&) = delete;
  DownloadTarget& operator=(const DownloadTarget&) = delete;
  // Removes a partial file that holds nothing.
  ~DownloadTarget() { settleFailed(); }

  const std::string& finalPath() const { return _finalPath; }
  const std::string& partialPath() const { return _partialPath; }
  // Whether the partial file held bytes when this target was made.
  bool foundPartial() const { return _foundPartial; }

  // The partial file, open for reading and writing.
  int descriptor() const { return _lock.get(); }

  // Takes another name in the same folder; throws as the constructor does when a file has it.
  void rename(const std::string& name);

  // What this run has brought is of no use should it fail; what an earlier one has left stays.
  void discardOnFailure() {
    if (!_foundPartial) _partial = Partial::kThrowAway;
  }

  // Bytes of the partial file that are really stored (a hole is not).
  std::uint64_t storedBytes() const;

  // Syncs the partial file, gives it the final name, syncs the folder, and returns the file's size.
  // Throws Failure.
  std::uint64_t commit();

  // After a failure: removes a partial file that holds nothing or is of no use, and lets go of it.
  // True when bytes are left.
  bool settleFailed();

 private:
  void lockPartial();
  void refuseExisting() const;

  std::string _finalPath;
  std::string _partialPath;
  Existing _existing;
  Partial _partial;
  bool _foundPartial = false;
  bool _committed = false;
  // Holds the advisory lock that keeps a second download off the partial file.
  FileDescriptor _lock;
};

}  // namespace kovo::cli
