#pragma once

#include <string>
#include <utility>
#include <vector>

namespace kovo {

// (name, value) pairs in order: headers, or query parameters.
using Header = std::pair<std::string, std::string>;
using HeaderList = std::vector<Header>;

}  // namespace kovo
