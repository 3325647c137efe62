#pragma once

#include <boost/noncopyable.hpp>
#include <memory>
#include <string>

#include "platform/clock.h"

namespace kovo {

class ClientCallbackHandler;

// Opens the file of an upload to learn its checksum.
class DatasourcesCrossPlatform : boost::noncopyable {
 public:
  virtual ~DatasourcesCrossPlatform() = default;
  // Keeps a source for the path, in place of an earlier one.
  virtual void openFile(std::shared_ptr<ClientCallbackHandler> callbackHandler,
                        const std::string& path) = 0;
  // Of the kept source's file: Base64 of its MD5, read in blocks; empty on failure, without an open
  // file, or when interrupt (may be null) says to give up.
  virtual std::string getMD5Checksum(const Interrupt* interrupt = nullptr) = 0;
};

}  // namespace kovo
