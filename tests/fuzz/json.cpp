// JSON from services, and texts from services in JSON of our own.
#include <rapidjson/document.h>

#include "fuzz/fuzz_target.h"
#include "upload/json_schema.h"
#include "upload/json_text.h"

namespace kovo::test {
namespace {

constexpr char kBefore[] = "before";

bool readMember(const std::string& text, std::string& value) {
  JSONSchema schema;
  schema.string("m", &value);
  return schema.parseJSON(text);
}

// Escapes of half a character are JSON, but no text.
bool holdsSurrogate(const std::string& text) {
  return contains(text, "\\ud") || contains(text, "\\uD");
}

}  // namespace

KOVO_FUZZ_TARGET(json) {
  const std::string text = input.rest();

  std::string outer = kBefore;
  std::string inner = kBefore;
  JSONSchema schema;
  schema.string("m", &outer);
  schema.object("o").object("p").string("m", &inner);
  const bool isComplete = schema.parseJSON(text);
  require(!isComplete || (contains(text, "\"m\"") || contains(text, "\\u")),
          "only what is there is found");
  require(!contains(outer, std::string(1, '\0')), "a text ends at its first NUL");
  std::string alone = kBefore;
  require(readMember(text, alone) == (outer != kBefore) || outer == alone,
          "a member is read whatever its neighbours are");

  std::string value;
  const std::string plain = text.substr(0, text.find('\0'));
  require(readMember("{\"m\":\"" + escapeJson(text) + "\"}", value) && value == plain,
          "a text survives its escaping");
  const std::string quoted = "\"" + escapeJson(text) + "\"";
  require(isJsonString(quoted), "an escaped text is a JSON string");
  for (const std::string& candidate : {text, "\"" + text + "\""}) {
    if (isJsonString(candidate) && !holdsSurrogate(candidate)) {
      require(readMember("{\"x\":1,\"m\":" + candidate + ",\"y\":{}}", value),
              "what counts as a JSON string is one");
    }
  }
}

}  // namespace kovo::test
