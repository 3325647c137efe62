#pragma once

#include <cstdint>
#include <string>

#include "file_descriptor.h"

namespace kovo::cli {

// The file a download is for: the bytes gather in "<file>._kstmp", which takes the final name only
// when they are complete and on the disk.
class DownloadTarget {
 public:
  enum class Existing { kRefuse, kReplace };

  // Throws Failure when the final file exists and must not be replaced, the folder is not there, or
  // another download fills the same partial file.
  DownloadTarget(std::string finalPath, Existing existing, bool keepPartial);
  DownloadTarget(const DownloadTarget&) = delete;
  DownloadTarget& operator=(const DownloadTarget&) = delete;
  // Removes a partial file that holds nothing.
  ~DownloadTarget() { settleFailed(); }

  const std::string& finalPath() const { return _finalPath; }
  const std::string& partialPath() const { return _partialPath; }
  // Whether the partial file held bytes when this target was made.
  bool foundPartial() const { return _foundPartial; }

  // Bytes of the partial file that are really stored (a hole is not).
  std::uint64_t storedBytes() const;

  // Syncs the partial file, gives it the final name, syncs the folder, and returns the file's size.
  // Throws Failure.
  std::uint64_t commit();

  // After a failure: removes a partial file that holds nothing. True when bytes are left.
  bool settleFailed();

 private:
  std::string _finalPath;
  std::string _partialPath;
  Existing _existing;
  bool _foundPartial = false;
  bool _committed = false;
  // Holds the advisory lock that keeps a second download off the partial file.
  FileDescriptor _lock;
};

}  // namespace kovo::cli
