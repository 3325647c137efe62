#include "sha256.h"

#include <fcntl.h>
#include <openssl/evp.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <memory>
#include <vector>

#include "failure.h"
#include "file_descriptor.h"

namespace kovo::cli {

namespace {

class Digest {
 public:
  Digest() : _context(EVP_MD_CTX_new(), &EVP_MD_CTX_free) {
    if (!_context || EVP_DigestInit_ex(_context.get(), EVP_sha256(), nullptr) != 1) {
      throw Failure(ExitCode::kOther, "SHA-256 is not available in this system's libcrypto");
    }
  }
  void add(const void* data, std::size_t size) { EVP_DigestUpdate(_context.get(), data, size); }
  std::string hex() {
    std::array<unsigned char, EVP_MAX_MD_SIZE> bytes{};
    unsigned int size = 0;
    EVP_DigestFinal_ex(_context.get(), bytes.data(), &size);
    constexpr const char* kDigits = "0123456789abcdef";
    std::string text;
    for (unsigned int i = 0; i < size; ++i) {
      text += kDigits[bytes[i] >> 4];
      text += kDigits[bytes[i] & 15];
    }
    return text;
  }

 private:
  std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> _context;
};

}  // namespace

std::string sha256OfFile(const std::string& path, const std::function<bool()>& stop) {
  const FileDescriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (file.get() < 0) {
    throw Failure(ExitCode::kFile, "cannot open " + path + ": " + std::strerror(errno));
  }
  Digest digest;
  std::vector<unsigned char> block(1 << 20);
  while (true) {
    if (stop()) return {};
    const ssize_t got = ::read(file.get(), block.data(), block.size());
    if (got < 0) {
      if (errno == EINTR) continue;
      throw Failure(ExitCode::kFile, "cannot read " + path + ": " + std::strerror(errno));
    }
    if (got == 0) break;
    digest.add(block.data(), static_cast<std::size_t>(got));
  }
  return digest.hex();
}

std::string sha256OfText(const std::string& text) {
  Digest digest;
  digest.add(text.data(), text.size());
  return digest.hex();
}

bool isSha256Text(const std::string& text) {
  return text.size() == 64 && std::all_of(text.begin(), text.end(),
                                          [](unsigned char c) { return std::isxdigit(c) != 0; });
}

}  // namespace kovo::cli
