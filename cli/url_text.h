#pragma once

#include <string>
#include <string_view>

namespace kovo::cli {

// The URL as it may be shown: without user name and password, control characters replaced.
std::string displayUrl(std::string_view url);

// Throws UsageError unless the URL is http or https with a host and free of spaces and controls.
void requireHttpUrl(std::string_view url);

// The name a download of this URL gets: the last segment of its path, percent-decoded;
// "index.html" when there is none. Throws Failure for a name that could leave the folder or
// disturb a terminal.
std::string fileNameFromUrl(std::string_view url);

// Text from elsewhere made safe for a terminal: control characters become '?'.
std::string printable(std::string_view text);

}  // namespace kovo::cli
