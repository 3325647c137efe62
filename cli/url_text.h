#pragma once

#include <functional>
#include <string>
#include <string_view>

namespace kovo::cli {

// The URL as it may be shown: without user name and password, with "***" for the values of query
// parameters that grant access, controls replaced.
std::string displayUrl(std::string_view url);

// Visits what displayUrl takes away: user name with password, password, and values of parameters.
void forEachSecretOf(std::string_view url,
                     const std::function<void(std::string_view, bool isParameter)>& visit);

// Throws UsageError unless the URL is http or https with a host and free of spaces and controls.
void requireHttpUrl(std::string_view url);

// The last segment of the URL's path, percent-decoded; empty when there is none.
std::string lastPathSegment(std::string_view url);

// "%41" becomes "A"; what is no percent-code stays.
std::string percentDecoded(std::string_view text);

}  // namespace kovo::cli
