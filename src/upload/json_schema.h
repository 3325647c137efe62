#pragma once

#include <string>

#include "upload/json_object.h"

namespace kovo {

// The root of a tree of bindings.
class JSONSchema : public JSONObject {
 public:
  JSONSchema() : JSONObject(std::string()) {}
  // Reads text, which may come from anybody and hold anything, into the tree's targets. Bytes
  // around the outermost braces are ignored. False, with a log line, when anything is missing.
  bool parseJSON(const std::string& text);
};

}  // namespace kovo
