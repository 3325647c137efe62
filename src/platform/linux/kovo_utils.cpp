#include "platform/kovo_utils.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <boost/numeric/conversion/cast.hpp>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <system_error>

#include "core/assertion.h"
#include "log/kovo_log.h"

namespace kovo {

kovo_error mapFileError(FileErrorKind kind, kovo_error defaultCode, std::string& message) {
  const int errorNumber = errno;
  switch (kind) {
    case FileErrorKind::None:
      KOVO_ASSERT(false, "false && \"Shouldn't call error handler with no error\"");
      return defaultCode;
    case FileErrorKind::BadHandle:
      message += ": Bad File Handle";
      return defaultCode;
    case FileErrorKind::DiskFull:
      message += ": Insufficient disk space to write to file";
      return KOVO_ERROR_INSUFFICIENT_DISK_SPACE;
    case FileErrorKind::Locked:
      message += ": File was locked";
      return KOVO_ERROR_FILE_LOCKED;
    case FileErrorKind::InvalidName:
      message += ": Invalid file name";
      return KOVO_ERROR_INVALID_FILE_NAME;
    case FileErrorKind::NotFound:
      message += ": File not found";
      return KOVO_ERROR_FILE_NOT_FOUND;
    case FileErrorKind::ParentMissing:
      message += ": Parent folder does not exist";
      return KOVO_ERROR_PARENT_FOLDER_NOT_FOUND;
    case FileErrorKind::AccessDenied:
      message += ": Access Denied";
      return defaultCode;
    case FileErrorKind::PathTooLong:
      message += ": Path is too long";
      return KOVO_ERROR_PATH_TOO_LONG;
    case FileErrorKind::InvalidParameter:
      return defaultCode;
    case FileErrorKind::Other:
      message = lastErrorText(message, errorNumber);
      return defaultCode;
  }
  return defaultCode;
}

std::string lastErrorText(const std::string& message, int errorNumber) {
  return message + ". " + std::generic_category().message(errorNumber) + "." +
         " last error code = " + std::to_string(errorNumber) + " ";
}

bool getFileStat(const std::string& path, std::uint64_t& size, std::int64_t& modificationTime,
                 std::shared_ptr<KovoError>& error) {
  struct stat facts;
  if (path.find('\0') != std::string::npos || ::stat(path.c_str(), &facts) != 0 ||
      S_ISDIR(facts.st_mode)) {
    error = makeKovoError(KOVO_ERROR_INVALID_INPUT_FILE, "Could not get mod time for: " + path);
    return false;
  }
  size = static_cast<std::uint64_t>(facts.st_size);
  modificationTime = facts.st_mtim.tv_sec;
  return true;
}

std::string formatHttpDate(std::int64_t secondsSince1970) {
  // Not strftime: the names must be English whatever the host's locale.
  static constexpr const char* kDays[] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
  static constexpr const char* kMonths[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                            "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
  const std::time_t seconds = secondsSince1970;
  std::tm utc{};
  ::gmtime_r(&seconds, &utc);
  char text[64];
  std::snprintf(text, sizeof text, "%s, %02d %s %04d %02d:%02d:%02d GMT", kDays[utc.tm_wday],
                utc.tm_mday, kMonths[utc.tm_mon], utc.tm_year + 1900, utc.tm_hour, utc.tm_min,
                utc.tm_sec);
  return text;
}

std::string getCurrentHttpDate() {
  return formatHttpDate(std::time(nullptr));
}

kovo_error KOVOUtils::createOutputFile(const std::string& path, std::string& reason,
                                       bool* isRegular) {
  PlatformFileOStream stream;
  if (stream.open(path, PlatformFileOStream::CreateReplacing)) {
    if (isRegular != nullptr) {
      *isRegular = stream.isRegularFile();
    }
    return KOVO_ERROR_NONE;
  }
  std::string suffix;
  const kovo_error code =
      mapFileError(stream.lastErrorKind, KOVO_ERROR_INVALID_OUTPUT_FILE, suffix);
  reason = "Unable to create file: " + path + " Reason: " + suffix;
  return code;
}

void KOVOUtils::deleteOutputFile(const std::string& path) {
  FileErrorKind kind = FileErrorKind::InvalidName;
  if (path.find('\0') == std::string::npos) {
    if (::unlink(path.c_str()) == 0) {
      return;
    }
    kind = fileErrorKind(errno, path);
  }
  KOVO_LOG(KOVO_LOG_WARN, "kovo::KOVOUtils::deleteOutputFile",
           "Failed to delete output file: %s reason: %d", path.c_str(), static_cast<int>(kind));
}

bool KOVOUtils::datesAreWithinTwoSeconds(std::int64_t first, std::int64_t second) {
  try {
    const double difference = static_cast<double>(first) - static_cast<double>(second);
    return std::abs(static_cast<std::int64_t>(boost::numeric_cast<std::int32_t>(difference))) < 2;
  } catch (const boost::numeric::bad_numeric_cast& overflow) {
    KOVO_LOG(KOVO_LOG_WARN, "kovo::KOVOUtils::datesAreWithinTwoSeconds",
             "Failed to get time difference between %ld and %ld Reason: %s",
             static_cast<long>(first), static_cast<long>(second), overflow.what());
    return false;
  }
}

std::string WinKOVOUtils::urlEncode(const std::string& text) {
  static constexpr char kHex[] = "0123456789ABCDEF";
  std::string encoded;
  encoded.reserve(text.size());
  for (const char c : text) {
    if ((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' ||
        c == '.' || c == '_' || c == '~') {
      encoded += c;
      continue;
    }
    const auto byte = static_cast<unsigned char>(c);
    encoded += '%';
    encoded += kHex[byte >> 4];
    encoded += kHex[byte & 0x0F];
  }
  return encoded;
}

std::string base64Encode(const std::string& bytes) {
  static constexpr char kAlphabet[] =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string encoded;
  encoded.reserve((bytes.size() + 2) / 3 * 4);
  for (std::size_t at = 0; at < bytes.size(); at += 3) {
    const std::size_t present = std::min<std::size_t>(3, bytes.size() - at);
    std::uint32_t group = 0;
    for (std::size_t i = 0; i < 3; ++i) {
      group = group << 8 | (i < present ? static_cast<unsigned char>(bytes[at + i]) : 0U);
    }
    for (std::size_t i = 0; i < 4; ++i) {
      encoded += i <= present ? kAlphabet[group >> (18 - 6 * i) & 0x3F] : '=';
    }
  }
  return encoded;
}

}  // namespace kovo
