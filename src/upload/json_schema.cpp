#include "upload/json_schema.h"

#include <rapidjson/error/en.h>

#include "log/kovo_log.h"

namespace kovo {

bool JSONSchema::parseJSON(const std::string& text) {
  std::size_t begin = text.find('{');
  const std::size_t end = text.rfind('}');
  std::size_t length = text.size();
  if (begin != std::string::npos && end != std::string::npos && end > begin) {
    length = end - begin + 1;
  } else {
    begin = 0;
  }
  // Iterative: the depth of the document is the sender's choice, that of the stack is not.
  rapidjson::Document document;
  document.Parse<rapidjson::kParseDefaultFlags | rapidjson::kParseIterativeFlag>(
      text.data() + begin, length);
  if (document.HasParseError()) {
    KOVO_LOG(KOVO_LOG_WARN, "kovo::JSONSchema::parseJSON", "Failed to parse raw JSON document: %s",
             rapidjson::GetParseError_En(document.GetParseError()));
    return false;
  }
  return parse(document);
}

}  // namespace kovo
