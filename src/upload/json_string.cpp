#include "upload/json_string.h"

#include "log/kovo_log.h"

namespace kovo {

bool JSONString::parse(const rapidjson::Value& value) {
  if (!value.IsString()) {
    KOVO_LOG(KOVO_LOG_WARN, "kovo::JSONString::parse",
             "JSONString: Failed to parse JSON String value for %s", name.c_str());
    return false;
  }
  *_target = value.GetString();
  return true;
}

}  // namespace kovo
