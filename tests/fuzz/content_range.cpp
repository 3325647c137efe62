// What a server says about the place and the size of the bytes it sends.
#include <optional>
#include <stdexcept>

#include "fuzz/fuzz_target.h"
#include "http/kovo_http_utils.h"
#include "transfers/decimal.h"
#include "upload/upload_threshold.h"

namespace kovo::test {
namespace {

struct Parsed {
  std::uint64_t first = 0;
  std::uint64_t last = 0;
  std::string total;
};

std::optional<Parsed> parse(const std::string& value) {
  Parsed parsed;
  return KovoHttpUtils::parseContentRangeHeader(value, parsed.first, parsed.last, parsed.total)
             ? std::optional(parsed)
             : std::nullopt;
}

std::string rangeText(std::uint64_t first, std::uint64_t last, const std::string& total) {
  return "bytes " + std::to_string(first) + "-" + std::to_string(last) + "/" + total;
}

}  // namespace

// value, start and length of the range that was asked for.
KOVO_FUZZ_TARGET(content_range) {
  const std::string value = input.line();
  const std::uint64_t start = input.number();
  const std::uint64_t length = input.number();

  const std::optional<Parsed> parsed = parse(value);
  if (parsed) {
    const auto again = parse(rangeText(parsed->first, parsed->last, parsed->total));
    require(again && again->first == parsed->first && again->last == parsed->last &&
                again->total == parsed->total,
            "a parsed range reads the same when it is written again");
  }
  if (KovoHttpUtils::validateContentRangeHeader(value, start, length)) {
    require(parsed.has_value(), "a valid value can be parsed");
    require(parsed->first == start && parsed->last >= start, "a valid range begins where asked");
    require(length == 0 || parsed->last - start < length, "a valid range ends where asked");
    require(!parsed->total.empty(), "a valid range tells a total or that it is unknown");
    require(parsed->total[0] == '*' || parseDecimal(parsed->total) > parsed->last,
            "a valid range lies within its resource");
  }
  if (length != 0 && start <= UINT64_MAX - length) {
    const std::uint64_t last = start + length - 1;
    for (const std::string& total : {std::to_string(last + 1), std::string("*")}) {
      require(
          KovoHttpUtils::validateContentRangeHeader(rangeText(start, last, total), start, length),
          "what was asked for is valid");
    }
    require(!KovoHttpUtils::validateContentRangeHeader(rangeText(start, last, std::to_string(last)),
                                                       start, length),
            "a range beyond its total is not valid");
  }

  try {
    const std::uint64_t number = parseDecimal(value);
    require(parseDecimal(std::to_string(number)) == number, "a number is read as written");
    UploadThreshold::set(number + 1);
    UploadThreshold::setFromHeader(value);
    require(UploadThreshold::get() == number, "both readers of numbers agree");
  } catch (const std::logic_error&) {
    UploadThreshold::set(7);
    UploadThreshold::setFromHeader(value);
    require(UploadThreshold::get() == 7, "no number changes nothing");
  }
  UploadThreshold::set(UploadThreshold::kInitial);
}

}  // namespace kovo::test
