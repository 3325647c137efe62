#include "support/origin_request.h"

#include <strings.h>

#include <charconv>

namespace kovo::test {
namespace {

std::optional<uint64_t> number(std::string_view text) {
  uint64_t value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || end != text.data() + text.size() || text.empty()) return std::nullopt;
  return value;
}

}  // namespace

std::optional<std::string> OriginRequest::header(std::string_view name) const {
  for (const auto& [key, value] : headers) {
    if (key.size() == name.size() && ::strncasecmp(key.data(), name.data(), name.size()) == 0) {
      return value;
    }
  }
  return std::nullopt;
}

std::optional<OriginRequest::Range> OriginRequest::range() const {
  const std::optional<std::string> text = header("Range");
  constexpr std::string_view kUnit = "bytes=";
  if (!text || text->compare(0, kUnit.size(), kUnit) != 0) return std::nullopt;
  const std::string_view both = std::string_view(*text).substr(kUnit.size());
  const size_t dash = both.find('-');
  if (dash == std::string_view::npos) return std::nullopt;
  const std::optional<uint64_t> first = number(both.substr(0, dash));
  if (!first) return std::nullopt;
  return Range{*first, number(both.substr(dash + 1))};
}

}  // namespace kovo::test
