#pragma once

#include <string>
#include <string_view>

namespace kovo::cli {

// Text from elsewhere made safe for a terminal: control characters, marks that change the writing
// direction, separators of lines and bytes that are no UTF-8 become '?'.
std::string printable(std::string_view text);

// The same with another replacement.
std::string withoutControls(std::string_view text, char replacement);

// Whether printable would change anything.
bool holdsControls(std::string_view text);

}  // namespace kovo::cli
