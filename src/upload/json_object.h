#pragma once

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "upload/json_parseable.h"

namespace kovo {

// An object member with the members it must have; members nobody names are ignored.
class JSONObject : public JSONParseable {
 public:
  using JSONParseable::JSONParseable;

  // Children are read in the order in which they are declared. Each returns the object itself or
  // the child, so that a tree is written down in one expression.
  JSONObject& string(std::string memberName, std::string* target);
  JSONObject& object(std::string memberName);
  void add(std::unique_ptr<JSONParseable> child) { _children.push_back(std::move(child)); }

  // Tries every child, so that a partly matching document fills what it can.
  bool parse(const rapidjson::Value& value) override;

 private:
  std::vector<std::unique_ptr<JSONParseable>> _children;
};

}  // namespace kovo
