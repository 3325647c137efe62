#pragma once

#include <unistd.h>

namespace kovo::cli {

// Owns an open file; negative: none.
class FileDescriptor {
 public:
  explicit FileDescriptor(int descriptor = -1) : _descriptor(descriptor) {}
  FileDescriptor(const FileDescriptor&) = delete;
  FileDescriptor& operator=(const FileDescriptor&) = delete;
  ~FileDescriptor() { reset(); }

  int get() const { return _descriptor; }
  void reset(int descriptor = -1) {
    if (_descriptor >= 0) ::close(_descriptor);
    _descriptor = descriptor;
  }

 private:
  int _descriptor;
};

}  // namespace kovo::cli
