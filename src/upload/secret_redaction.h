#pragma once

#include <string>

namespace kovo {

// A server's words fit for an error text or a log line: the values of members, parameters, elements
// and headers that are named like credentials (tokens, keys, signatures, passwords) become "***",
// and a text too long to be read is cut.
std::string redactSecrets(const std::string& text);

}  // namespace kovo
