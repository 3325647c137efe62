#include "quantity.h"

#include <array>
#include <charconv>
#include <cmath>
#include <cstdio>

#include "usage_error.h"

namespace kovo::cli {

namespace {

[[noreturn]] void refuse(std::string_view text, std::string_view option,
                         std::string_view expected) {
  throw UsageError(std::string(option) + ": '" + std::string(text) + "' is not " +
                   std::string(expected));
}

}  // namespace

std::uint64_t parseBytes(std::string_view text, std::string_view option) {
  constexpr std::string_view kExpected = "a size such as 65536, 512k, 8M or 1.5G";
  double value = 0;
  const char* const end = text.data() + text.size();
  const auto [rest, error] = std::from_chars(text.data(), end, value, std::chars_format::fixed);
  if (error != std::errc() || value < 0) refuse(text, option, kExpected);
  std::string_view unit(rest, static_cast<std::size_t>(end - rest));
  double factor = 1;
  if (!unit.empty()) {
    switch (unit.front()) {
      case 'k':
      case 'K':
        factor = 1024.0;
        break;
      case 'm':
      case 'M':
        factor = 1024.0 * 1024;
        break;
      case 'g':
      case 'G':
        factor = 1024.0 * 1024 * 1024;
        break;
      default:
        refuse(text, option, kExpected);
    }
    unit.remove_prefix(1);
    if (!unit.empty() && unit != "iB" && unit != "B") refuse(text, option, kExpected);
  }
  const double bytes = std::floor(value * factor);
  if (bytes >= 9.0e18) refuse(text, option, kExpected);
  return static_cast<std::uint64_t>(bytes);
}

std::uint64_t parseNumber(std::string_view text, std::string_view option, std::uint64_t least,
                          std::uint64_t most) {
  std::uint64_t value = 0;
  const char* const end = text.data() + text.size();
  const auto [rest, error] = std::from_chars(text.data(), end, value);
  if (error != std::errc() || rest != end || value < least || value > most) {
    refuse(text, option, "a number from " + std::to_string(least) + " to " + std::to_string(most));
  }
  return value;
}

std::string formatBytes(std::uint64_t bytes) {
  constexpr std::array<const char*, 6> kUnits = {"B", "KiB", "MiB", "GiB", "TiB", "PiB"};
  auto value = static_cast<double>(bytes);
  std::size_t unit = 0;
  while (value >= 999.5 && unit + 1 < kUnits.size()) {
    value /= 1024;
    ++unit;
  }
  const int decimals = unit == 0 ? 0 : value < 9.995 ? 2 : value < 99.95 ? 1 : 0;
  std::array<char, 32> text{};
  std::snprintf(text.data(), text.size(), "%.*f %s", decimals, value, kUnits[unit]);
  return text.data();
}

std::string formatDuration(std::chrono::seconds duration) {
  const long long total = duration.count();
  if (total < 0 || total >= 100LL * 3600) return "--:--";
  std::array<char, 32> text{};
  if (total >= 3600) {
    std::snprintf(text.data(), text.size(), "%lld:%02lld:%02lld", total / 3600, total / 60 % 60,
                  total % 60);
  } else {
    std::snprintf(text.data(), text.size(), "%lld:%02lld", total / 60, total % 60);
  }
  return text.data();
}

}  // namespace kovo::cli
