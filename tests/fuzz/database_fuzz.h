#pragma once

#include <functional>
#include <string>

#include "fuzz/fuzz_target.h"

namespace kovo::test {

/**
 * Puts a file in the place of a database that the library has made, as the input says. The letter
 * comes first:
 *   r  the rest is the file
 *   p  the library's own file, with pairs of an offset and the bytes to write there, line by line
 *   t  as p, behind a length to cut the file to
 *   w  the library's own file, and the rest as its write-ahead log
 *   s  the library's own file, after the statements of the rest
 * Answers whether nothing of the library's own file is left.
 */
bool placeDatabase(FuzzInput& input, const std::string& path, const std::string& own);

/** Removes every file of a directory. */
void emptyDirectory(const std::string& directory);

}  // namespace kovo::test
