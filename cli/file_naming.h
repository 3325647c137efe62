#pragma once

#include <string>
#include <string_view>

namespace kovo::cli {

// The name a download of this URL gets: the last segment of its path; "index.html" when there is
// none. Leading dots become '_', so that no hidden file appears. Throws Failure for a name that
// could leave the folder or disturb a terminal.
std::string fileNameFromUrl(std::string_view url);

// The file name a Content-Disposition header proposes, made safe: its last path component, with
// '_' for controls and leading dots. Empty when there is none that can be used.
std::string fileNameFromDisposition(std::string_view header);

}  // namespace kovo::cli
