#include "upload/json_object.h"

#include "log/kovo_log.h"
#include "upload/json_string.h"

namespace kovo {

JSONObject& JSONObject::string(std::string memberName, std::string* target) {
  add(std::make_unique<JSONString>(std::move(memberName), target));
  return *this;
}

JSONObject& JSONObject::object(std::string memberName) {
  auto child = std::make_unique<JSONObject>(std::move(memberName));
  JSONObject& reference = *child;
  add(std::move(child));
  return reference;
}

bool JSONObject::parse(const rapidjson::Value& value) {
  if (!value.IsObject()) {
    KOVO_LOG(KOVO_LOG_WARN, "kovo::JSONObject::parse", "Failed to parse JSON object for %s",
             name.c_str());
    return false;
  }
  bool result = true;
  for (const auto& child : _children) {
    const auto member = value.FindMember(child->name.c_str());
    if (member == value.MemberEnd()) {
      result = false;
      KOVO_LOG(KOVO_LOG_WARN, "kovo::JSONObject::parse", "Failed to find JSON value for %s",
               child->name.c_str());
    } else {
      result = child->parse(member->value) && result;
    }
  }
  if (!result) {
    KOVO_LOG(KOVO_LOG_WARN, "kovo::JSONObject::parse",
             "Failed to parse all members of JSON Object %s", name.c_str());
  }
  return result;
}

}  // namespace kovo
