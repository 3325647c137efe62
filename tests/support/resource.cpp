#include "support/resource.h"

#include <openssl/evp.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <vector>

namespace kovo::test {
namespace {

constexpr size_t kPiece = 256 * 1024;

uint64_t wordAt(uint64_t seed, uint64_t index) {
  uint64_t z = seed * 0xd1342543de82ef95ULL + (index + 1) * 0x9e3779b97f4a7c15ULL;
  z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9ULL;
  z = (z ^ (z >> 27)) * 0x94d049bb133111ebULL;
  return z ^ (z >> 31);
}

class Sha256 {
 public:
  Sha256() : _context(EVP_MD_CTX_new(), &EVP_MD_CTX_free) {
    if (_context == nullptr || EVP_DigestInit_ex(_context.get(), EVP_sha256(), nullptr) != 1) {
      throw std::runtime_error("SHA-256 is not available");
    }
  }
  void add(const void* data, size_t size) {
    if (EVP_DigestUpdate(_context.get(), data, size) != 1) {
      throw std::runtime_error("SHA-256 failed");
    }
  }
  std::string hex() {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    if (EVP_DigestFinal_ex(_context.get(), digest, &length) != 1) {
      throw std::runtime_error("SHA-256 failed");
    }
    static constexpr char kDigits[] = "0123456789abcdef";
    std::string text;
    for (unsigned int i = 0; i < length; ++i) {
      text += kDigits[digest[i] >> 4];
      text += kDigits[digest[i] & 15];
    }
    return text;
  }

 private:
  std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> _context;
};

std::ifstream openForReading(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) throw std::runtime_error("cannot read " + path);
  return in;
}

size_t readPiece(std::ifstream& in, std::vector<uint8_t>& piece) {
  in.read(reinterpret_cast<char*>(piece.data()), static_cast<std::streamsize>(piece.size()));
  return static_cast<size_t>(in.gcount());
}

}  // namespace

void Resource::fill(uint64_t offset, std::span<uint8_t> out) const {
  uint8_t* to = out.data();
  size_t left = out.size();
  uint64_t index = offset / 8;
  if (const size_t skip = offset % 8; skip != 0 && left != 0) {
    const uint64_t word = wordAt(_seed, index++);
    const size_t count = std::min(left, 8 - skip);
    std::memcpy(to, reinterpret_cast<const uint8_t*>(&word) + skip, count);
    to += count;
    left -= count;
  }
  for (; left >= 8; left -= 8, to += 8) {
    const uint64_t word = wordAt(_seed, index++);
    std::memcpy(to, &word, 8);
  }
  if (left != 0) {
    const uint64_t word = wordAt(_seed, index);
    std::memcpy(to, &word, left);
  }
}

std::string Resource::bytes(uint64_t offset, uint64_t length) const {
  std::string text(length, '\0');
  fill(offset, {reinterpret_cast<uint8_t*>(text.data()), text.size()});
  return text;
}

bool Resource::matches(uint64_t offset, std::string_view data) const {
  std::vector<uint8_t> expected(std::min(data.size(), kPiece));
  for (size_t done = 0; done < data.size();) {
    const size_t count = std::min(expected.size(), data.size() - done);
    fill(offset + done, {expected.data(), count});
    if (std::memcmp(expected.data(), data.data() + done, count) != 0) return false;
    done += count;
  }
  return true;
}

std::string Resource::sha256() const {
  Sha256 digest;
  std::vector<uint8_t> piece(kPiece);
  for (uint64_t done = 0; done < _size;) {
    const size_t count = static_cast<size_t>(std::min<uint64_t>(kPiece, _size - done));
    fill(done, {piece.data(), count});
    digest.add(piece.data(), count);
    done += count;
  }
  return digest.hex();
}

void Resource::writeTo(const std::string& path) const {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  std::vector<uint8_t> piece(kPiece);
  for (uint64_t done = 0; done < _size;) {
    const size_t count = static_cast<size_t>(std::min<uint64_t>(kPiece, _size - done));
    fill(done, {piece.data(), count});
    out.write(reinterpret_cast<const char*>(piece.data()), static_cast<std::streamsize>(count));
    done += count;
  }
  out.close();
  if (!out) throw std::runtime_error("cannot write " + path);
}

std::string Resource::differenceTo(const std::string& path) const {
  std::ifstream in(path, std::ios::binary);
  if (!in) return path + " cannot be read";
  std::vector<uint8_t> piece(kPiece);
  std::vector<uint8_t> expected(kPiece);
  uint64_t at = 0;
  while (const size_t count = readPiece(in, piece)) {
    fill(at, {expected.data(), count});
    const auto [mine, _] = std::mismatch(
        expected.begin(), expected.begin() + static_cast<std::ptrdiff_t>(count), piece.begin());
    const uint64_t same = static_cast<uint64_t>(mine - expected.begin());
    if (same != count && at + same < _size) {
      return path + " differs at byte " + std::to_string(at + same);
    }
    at += count;
  }
  if (at == _size) return {};
  return path + " has " + std::to_string(at) + " bytes, not " + std::to_string(_size);
}

std::string sha256Of(std::string_view data) {
  Sha256 digest;
  digest.add(data.data(), data.size());
  return digest.hex();
}

std::string sha256OfFile(const std::string& path) {
  std::ifstream in = openForReading(path);
  Sha256 digest;
  std::vector<uint8_t> piece(kPiece);
  while (const size_t count = readPiece(in, piece)) digest.add(piece.data(), count);
  return digest.hex();
}

std::string readFile(const std::string& path) {
  std::ifstream in = openForReading(path);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

void writeFile(const std::string& path, std::string_view content) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(content.data(), static_cast<std::streamsize>(content.size()));
  out.close();
  if (!out) throw std::runtime_error("cannot write " + path);
}

}  // namespace kovo::test
