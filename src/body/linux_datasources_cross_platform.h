#pragma once

#include <memory>
#include <string>

#include "body/datasources_cross_platform.h"

namespace kovo {

class FileSource;

class LinuxDatasourcesCrossPlatform : public DatasourcesCrossPlatform {
 public:
  void openFile(std::shared_ptr<ClientCallbackHandler> callbackHandler,
                const std::string& path) override;
  std::string getMD5Checksum(const Interrupt* interrupt = nullptr) override;

 private:
  std::shared_ptr<FileSource> _source;
  std::string _path;
};

}  // namespace kovo
