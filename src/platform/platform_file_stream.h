#pragma once

#include <boost/noncopyable.hpp>
#include <cstdint>
#include <string>

namespace kovo {

// The platform layer's own classification of file errors.
enum class FileErrorKind : std::uint32_t {
  None = 0,
  BadHandle = 1,
  DiskFull = 2,
  Locked = 3,
  InvalidName = 4,
  NotFound = 5,
  ParentMissing = 6,
  AccessDenied = 7,
  PathTooLong = 8,
  InvalidParameter = 9,
  Other = 10,
};

// The kind of an errno value for an operation on path (ENOENT tells a missing file from a missing
// parent folder).
FileErrorKind fileErrorKind(int errorNumber, const std::string& path);

// A read stream on one file; used by one thread at a time.
class PlatformFileIStream : boost::noncopyable {
 public:
  PlatformFileIStream() = default;
  ~PlatformFileIStream();

  // The file must exist. shareMode: 0 nobody else, 1 others may read, 2..5 others may read and
  // write (advisory). Sets lastErrorKind; true on success.
  bool open(const std::string& path, std::uint32_t shareMode);
  bool isOpen() const { return _descriptor >= 0; }
  // File size; 0 when not open.
  std::uint64_t Length() const;
  // Moves the read position. Throws std::system_error when the platform refuses.
  void Seek(std::uint64_t offset);
  // Up to maxLength bytes at the current position; 0 bytes at the end. False when not open, or when
  // the platform's read failed (lastErrorKind tells why).
  bool ReadBlock(std::uint8_t* buffer, std::uint64_t maxLength, std::uint64_t* bytesRead);

  FileErrorKind lastErrorKind = FileErrorKind::None;

 private:
  int _descriptor = -1;
  std::uint64_t _position = 0;
  std::string _path;
};

// A write stream on one file; used by one thread at a time. Others may read and write the file.
class PlatformFileOStream : boost::noncopyable {
 public:
  // How open treats a file that exists or does not.
  enum CreateMode : std::uint32_t {
    OpenOrCreate = 0,
    CreateReplacing = 1,
    OpenExisting = 2,     // fails when missing
    ReplaceExisting = 3,  // fails when missing
  };

  PlatformFileOStream() = default;
  ~PlatformFileOStream();

  // Throws std::invalid_argument for an unknown mode. Sets lastErrorKind; true on success.
  bool open(const std::string& path, std::uint32_t createMode);
  bool isOpen() const { return _descriptor >= 0; }
  // Not a device.
  bool isRegularFile() const { return _isRegularFile; }
  // All of the bytes at the current position; false when not open or when the write failed
  // (lastErrorKind tells why).
  bool WriteBlock(const std::uint8_t* data, std::uint64_t length);
  bool SetCurrentPosition(std::uint64_t offset);
  // Waits until what was written is on the medium; false on failure.
  bool Flush();
  // Gives up the descriptor; later operations fail as for a stream that is not open.
  void close();

  FileErrorKind lastErrorKind = FileErrorKind::None;

 private:
  int _descriptor = -1;
  bool _isRegularFile = false;
  std::uint64_t _position = 0;
  std::string _path;
};

}  // namespace kovo
