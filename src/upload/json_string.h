#pragma once

#include <string>
#include <utility>

#include "upload/json_parseable.h"

namespace kovo {

// A string member. The target outlives the binding; a failure leaves it unchanged.
class JSONString : public JSONParseable {
 public:
  JSONString(std::string memberName, std::string* target)
      : JSONParseable(std::move(memberName)), _target(target) {}
  // Takes the text up to its first NUL.
  bool parse(const rapidjson::Value& value) override;

 private:
  std::string* const _target;
};

}  // namespace kovo
