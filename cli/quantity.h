#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>

namespace kovo::cli {

// "8M", "512k", "1.5G", "4096": bytes, in powers of 1024. Throws UsageError that names option.
std::uint64_t parseBytes(std::string_view text, std::string_view option);

// A whole number from least to most. Throws UsageError that names option.
std::uint64_t parseNumber(std::string_view text, std::string_view option, std::uint64_t least,
                          std::uint64_t most);

// "1.23 GiB", at most 10 characters.
std::string formatBytes(std::uint64_t bytes);

// "0:07", "12:34", "3:05:09"; "--:--" from 100 hours on.
std::string formatDuration(std::chrono::seconds duration);

}  // namespace kovo::cli
