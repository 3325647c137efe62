#include <openssl/evp.h>
#include <openssl/hmac.h>

#include <algorithm>
#include <array>
#include <memory>
#include <stdexcept>

#include "core/byte_block.h"
#include "log/kovo_log.h"
#include "platform/kovo_utils.h"
#include "platform/platform_file_stream.h"

namespace kovo {
namespace {

constexpr char kMd5Operation[] = "kovo::WinKOVOUtils::getMD5Checksum";
constexpr std::size_t kMd5Size = 16;
constexpr std::size_t kSha1Size = 20;

void require(bool condition) {
  if (!condition) {
    throw std::runtime_error("There was an error creating the hash");
  }
}

class Md5 {
 public:
  Md5() : _context(::EVP_MD_CTX_new(), ::EVP_MD_CTX_free) {
    require(_context != nullptr);
    require(::EVP_DigestInit_ex(_context.get(), ::EVP_md5(), nullptr) == 1);
  }
  void update(const void* data, std::size_t size) {
    require(::EVP_DigestUpdate(_context.get(), data, size) == 1);
  }
  std::string base64() {
    std::array<unsigned char, EVP_MAX_MD_SIZE> digest;
    unsigned int size = 0;
    require(::EVP_DigestFinal_ex(_context.get(), digest.data(), &size) == 1 && size == kMd5Size);
    return base64Encode(std::string(digest.begin(), digest.begin() + kMd5Size));
  }

 private:
  std::unique_ptr<EVP_MD_CTX, void (*)(EVP_MD_CTX*)> _context;
};

}  // namespace

std::string WinKOVOUtils::getMD5Checksum(const std::string& path, const Interrupt* interrupt) {
  if (path.empty()) {
    KOVO_LOG(KOVO_LOG_WARN, kMd5Operation,
             "WinKOVOUtils::getMD5Checksum - local file path cannot be empty");
    return {};
  }
  PlatformFileIStream stream;
  if (!stream.open(path, 1)) {
    KOVO_LOG(KOVO_LOG_WARN, kMd5Operation, "WinKOVOUtils::getMD5Checksum- failed opening file");
    return {};
  }
  Md5 md5;
  ByteBlock block = ByteBlock::allocate();
  std::uint64_t remaining = stream.Length();
  while (remaining > 0) {
    if (interrupt != nullptr && *interrupt && (*interrupt)()) {
      return {};
    }
    std::uint64_t bytesRead = 0;
    // A file that shrinks meanwhile ends early; no bytes would come for ever.
    if (!stream.ReadBlock(block.data(), std::min<std::uint64_t>(remaining, ByteBlock::kCapacity),
                          &bytesRead) ||
        bytesRead == 0) {
      KOVO_LOG(KOVO_LOG_WARN, kMd5Operation, "Failed to read data for md5 from: %s", path.c_str());
      break;
    }
    md5.update(block.data(), bytesRead);
    remaining -= bytesRead;
  }
  return md5.base64();
}

std::string WinKOVOUtils::getMD5ChecksumOfText(const std::string& text) {
  Md5 md5;
  md5.update(text.data(), text.size());
  return md5.base64();
}

std::string hmacSha1(const std::string& key, const std::string& text) {
  std::array<unsigned char, EVP_MAX_MD_SIZE> digest;
  unsigned int size = 0;
  require(::HMAC(::EVP_sha1(), key.data(), static_cast<int>(key.size()),
                 reinterpret_cast<const unsigned char*>(text.data()), text.size(), digest.data(),
                 &size) != nullptr &&
          size == kSha1Size);
  return std::string(digest.begin(), digest.begin() + kSha1Size);
}

}  // namespace kovo
