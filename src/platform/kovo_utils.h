#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "core/kovo_error.h"
#include "platform/clock.h"
#include "platform/platform_file_stream.h"

namespace kovo {

// The code of a file error, and its reason appended to message; see the table in the source.
kovo_error mapFileError(FileErrorKind kind, kovo_error defaultCode, std::string& message);

// message, the platform's description of errorNumber and the number, as one text.
std::string lastErrorText(const std::string& message, int errorNumber);

// Size in bytes and modification time in seconds since 1970. On failure sets error to code 18.
bool getFileStat(const std::string& path, std::uint64_t& size, std::int64_t& modificationTime,
                 std::shared_ptr<KovoError>& error);

// Now in UTC, e.g. "Wed, 18 Nov 2026 10:05:07 GMT".
std::string getCurrentHttpDate();
// The same for any time, in seconds since 1970.
std::string formatHttpDate(std::int64_t secondsSince1970);

// Small file helpers.
struct KOVOUtils {
  // Creates path empty, replacing an existing file. On failure returns the code and sets reason; on
  // success tells whether it is a regular file (isRegular may be null).
  static kovo_error createOutputFile(const std::string& path, std::string& reason,
                                     bool* isRegular = nullptr);
  // Never fails to the caller; a failure is logged.
  static void deleteOutputFile(const std::string& path);
  // Seconds since 1970.
  static bool datesAreWithinTwoSeconds(std::int64_t first, std::int64_t second);
};

// Text and checksum helpers.
struct WinKOVOUtils {
  // Letters, digits and "-._~" stay; every other byte becomes "%XX".
  static std::string urlEncode(const std::string& text);
  // Base64 of the MD5 of the file's bytes, read in blocks; empty on failure or when interrupt
  // (may be null) says to give up.
  static std::string getMD5Checksum(const std::string& path, const Interrupt* interrupt = nullptr);
  // Base64 of the MD5 of a text.
  static std::string getMD5ChecksumOfText(const std::string& text);
};

// Standard alphabet, padded.
std::string base64Encode(const std::string& bytes);
// The raw 20-byte HMAC-SHA1.
std::string hmacSha1(const std::string& key, const std::string& text);

struct BaseDirConfig {
  // The engine's base directory, created if need be, readable by its owner alone; empty when there
  // is none. No trailing separator.
  static std::string initBaseDir();
};

}  // namespace kovo
