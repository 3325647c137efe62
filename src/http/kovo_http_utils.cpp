#include "http/kovo_http_utils.h"

#include <algorithm>
#include <boost/algorithm/string/predicate.hpp>
#include <limits>
#include <stdexcept>

#include "core/assertion.h"
#include "log/kovo_log.h"

namespace kovo {
namespace {

std::string trim(const std::string& text) {
  constexpr char kSpaces[] = " \t\n\v\f\r";
  const auto first = text.find_first_not_of(kSpaces);
  if (first == std::string::npos) {
    return {};
  }
  return text.substr(first, text.find_last_not_of(kSpaces) - first + 1);
}

bool isDigits(const std::string& text) {
  return text.find_first_not_of("0123456789") == std::string::npos;
}

// text holds digits only.
std::uint64_t toNumber(const std::string& text) {
  if (text.empty()) {
    throw std::invalid_argument("invalid stoull argument");
  }
  std::uint64_t number = 0;
  for (const char digit : text) {
    const auto value = static_cast<std::uint64_t>(digit - '0');
    if (number > (std::numeric_limits<std::uint64_t>::max() - value) / 10) {
      throw std::out_of_range("stoull argument out of range");
    }
    number = number * 10 + value;
  }
  return number;
}

char toLowerAscii(char letter) {
  return letter >= 'A' && letter <= 'Z' ? static_cast<char>(letter - 'A' + 'a') : letter;
}

void logFailedConversion(const char* function, const std::string& value,
                         const std::exception& exception) {
  KOVO_LOG(KOVO_LOG_ERROR, function,
           "Failed to parse content-range header value: %s. Exception: %s", value.c_str(),
           exception.what());
}

}  // namespace

std::string KovoHttpUtils::toString(kovo_http_verb verb) {
  switch (verb) {
    case KOVO_HTTP_PUT:
      return "PUT";
    case KOVO_HTTP_POST:
      return "POST";
    case KOVO_HTTP_GET:
      return "GET";
    case KOVO_HTTP_DELETE:
      return "DELETE";
    case KOVO_HTTP_HEAD:
      return "HEAD";
    case KOVO_HTTP_OPTIONS:
      return "OPTIONS";
    case KOVO_HTTP_PATCH:
      return "PATCH";
    default:
      KOVO_ASSERT(false, "FALSE");
      return "GET";
  }
}

bool KovoHttpUtils::mayCarryBody(kovo_http_verb verb) {
  return verb == KOVO_HTTP_PUT || verb == KOVO_HTTP_POST || verb == KOVO_HTTP_PATCH;
}

bool KovoHttpUtils::equalsIgnoreCase(const std::string& first, const std::string& second) {
  // Asked for every header of every response: no locale, and no look at names of other lengths.
  return first.size() == second.size() &&
         std::equal(first.begin(), first.end(), second.begin(), [](char left, char right) {
           return toLowerAscii(left) == toLowerAscii(right);
         });
}

bool KovoHttpUtils::parseContentRangeHeader(const std::string& value, std::uint64_t& first,
                                            std::uint64_t& last, std::string& total) {
  const auto slash = value.find('/');
  if (slash == std::string::npos) {
    return false;
  }
  total = trim(value.substr(slash + 1));
  const std::string range = trim(value.substr(0, slash));
  constexpr std::size_t kUnitLength = sizeof(http::kBytes) - 1;
  const auto dash = range.find('-');
  if (dash == std::string::npos || dash < kUnitLength) {
    return false;
  }
  const std::string firstText = trim(range.substr(kUnitLength, dash - kUnitLength));
  const std::string lastText = trim(range.substr(dash + 1));
  const bool totalAcceptable = isDigits(total) || total.front() == '*';
  if (!totalAcceptable || !isDigits(firstText) || !isDigits(lastText)) {
    return false;
  }
  try {
    const std::uint64_t firstByte = toNumber(firstText);
    last = toNumber(lastText);
    first = firstByte;
  } catch (const std::exception& exception) {
    logFailedConversion("parseContentRangeHeader", value, exception);
    return false;
  }
  return true;
}

bool KovoHttpUtils::validateContentRangeHeader(const std::string& value, std::uint64_t start,
                                               std::uint64_t length) {
  const std::string trimmed = trim(value);
  if (!boost::algorithm::starts_with(trimmed, http::kBytes)) {
    return false;
  }
  std::uint64_t first = 0;
  std::uint64_t last = 0;
  std::string totalText;
  if (!parseContentRangeHeader(trimmed, first, last, totalText)) {
    return false;
  }
  bool reachesBeyondTotal = false;
  if (totalText.empty() || totalText.front() != '*') {
    try {
      reachesBeyondTotal = toNumber(totalText) <= last;
    } catch (const std::exception& exception) {
      logFailedConversion("kovo::KovoHttpUtils::validateContentRangeHeader", value, exception);
      return false;
    }
  }
  return first == start && last >= start && (length == 0 || last - start < length) &&
         !reachesBeyondTotal;
}

std::string KovoHttpUtils::redactUrl(const std::string& url) {
  const std::string visible = url.substr(0, url.find_first_of("?#"));
  const auto scheme = visible.find("://");
  const auto authority = scheme == std::string::npos ? 0 : scheme + 3;
  const auto path = visible.find('/', authority);
  const auto userEnd = visible.substr(0, path).rfind('@');
  if (userEnd == std::string::npos || userEnd < authority) {
    return visible;
  }
  return visible.substr(0, authority) + visible.substr(userEnd + 1);
}

}  // namespace kovo
