#pragma once

#include <string>

namespace kovo {

// The characters of a JSON string for text, without the quotes around it: quotes, backslashes and
// control characters are escaped, everything else stays as it is.
std::string escapeJson(const std::string& text);

// Whether text, its own double quotes included, is one JSON string.
bool isJsonString(const std::string& text);

}  // namespace kovo
