#pragma once

#include <rapidjson/document.h>

#include <boost/noncopyable.hpp>
#include <string>
#include <utility>

namespace kovo {

// A named place in an expected JSON document that a value is read into.
class JSONParseable : boost::noncopyable {
 public:
  explicit JSONParseable(std::string memberName) : name(std::move(memberName)) {}
  virtual ~JSONParseable() = default;
  // False, with a log line, when the value is not of the expected kind.
  virtual bool parse(const rapidjson::Value& value) = 0;

  // The member of the parent object to look up.
  const std::string name;
};

}  // namespace kovo
