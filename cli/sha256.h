#pragma once

#include <functional>
#include <string>

namespace kovo::cli {

// The SHA-256 of a file in lower-case hex; empty when stop answered true on the way. Throws
// Failure when the file cannot be read.
std::string sha256OfFile(const std::string& path, const std::function<bool()>& stop);

// The SHA-256 of a text in lower-case hex.
std::string sha256OfText(const std::string& text);

// Whether text is 64 hex digits.
bool isSha256Text(const std::string& text);

}  // namespace kovo::cli
