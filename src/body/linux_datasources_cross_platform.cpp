#include "body/linux_datasources_cross_platform.h"

#include <utility>

#include "body/file_source.h"
#include "platform/kovo_utils.h"

namespace kovo {

void LinuxDatasourcesCrossPlatform::openFile(std::shared_ptr<ClientCallbackHandler> callbackHandler,
                                             const std::string& path) {
  _source = std::make_shared<FileSource>(std::move(callbackHandler), path);
  _path = path;
}

std::string LinuxDatasourcesCrossPlatform::getMD5Checksum(const Interrupt* interrupt) {
  return _source ? WinKOVOUtils::getMD5Checksum(_path, interrupt) : std::string();
}

}  // namespace kovo
