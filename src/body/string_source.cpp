#include "body/string_source.h"

#include <algorithm>
#include <utility>

#include "platform/kovo_utils.h"

namespace kovo {

StringSource::StringSource(std::string text, std::string contentType)
    : _text(std::move(text)), _contentType(std::move(contentType)) {}

bool StringSource::read(std::uint8_t* dataBuffer, std::size_t maxDataLength,
                        std::size_t& bytesRead) {
  bytesRead = std::min(maxDataLength, _text.size() - _position);
  std::copy_n(_text.data() + _position, bytesRead, dataBuffer);
  _position += bytesRead;
  return true;
}

std::string StringSource::getMD5Checksum() const {
  return WinKOVOUtils::getMD5ChecksumOfText(_text);
}

int StringSource::getError(std::string& message) const {
  message.clear();
  return 0;
}

}  // namespace kovo
