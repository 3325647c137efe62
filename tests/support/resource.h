#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

namespace kovo::test {

/**
 * Bytes that follow from a seed and their position alone: any part of a resource of any size can
 * be served and checked without storing it. Two seeds differ in practically every 8-byte word.
 */
class Resource {
 public:
  Resource(uint64_t seed, uint64_t size) : _seed(seed), _size(size) {}

  uint64_t size() const { return _size; }

  /** Writes the bytes [offset, offset + out.size()), also past size(). */
  void fill(uint64_t offset, std::span<uint8_t> out) const;
  std::string bytes(uint64_t offset, uint64_t length) const;
  std::string all() const { return bytes(0, _size); }

  /** True when data stands at offset in this resource. */
  bool matches(uint64_t offset, std::string_view data) const;

  /** Hexadecimal SHA-256 of the whole. */
  std::string sha256() const;

  /** Creates the file path with the whole content. */
  void writeTo(const std::string& path) const;

  /**
   * Empty when the file holds exactly this resource, else what differs and where. Reads the file
   * piece by piece.
   */
  std::string differenceTo(const std::string& path) const;

 private:
  uint64_t _seed;
  uint64_t _size;
};

/** Hexadecimal SHA-256 of data, or of a file's content. */
std::string sha256Of(std::string_view data);
std::string sha256OfFile(const std::string& path);

std::string readFile(const std::string& path);
void writeFile(const std::string& path, std::string_view content);

}  // namespace kovo::test
