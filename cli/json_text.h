#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace kovo::cli {

// text as a JSON string: its lines made printable, without secrets, quoted, and safe inside a
// <script>.
std::string jsonString(std::string_view text);

// Builds one JSON object on one line.
class JsonObject {
 public:
  JsonObject& add(std::string_view name, std::string_view text) {
    return addRaw(name, jsonString(text));
  }
  JsonObject& add(std::string_view name, std::uint64_t number) {
    return addRaw(name, std::to_string(number));
  }
  // With at most three digits after the point.
  JsonObject& addReal(std::string_view name, double number);
  // json is valid JSON already.
  JsonObject& addRaw(std::string_view name, std::string_view json);

  std::string text() const { return "{" + _members + "}"; }

 private:
  std::string _members;
};

// A number with at most three digits after the point, whatever the locale.
std::string jsonReal(double number);

}  // namespace kovo::cli
