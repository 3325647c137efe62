#pragma once

#include <string>

namespace kovo {

// url with parameters added to its query: behind "?" when it has none yet, behind "&" otherwise. A
// fragment, which no request carries, is left out.
std::string appendQuery(const std::string& url, const std::string& parameters);

// Percent-encodes what would end or change a parameter's value; the identifiers that services hand
// out in practice stay as they are.
std::string encodeQueryValue(const std::string& value);

}  // namespace kovo
