#include "upload/secret_redaction.h"

#include <algorithm>
#include <cctype>

namespace kovo {
namespace {

constexpr std::size_t kLongestText = 64 * 1024;

constexpr const char* kSecretEndings[] = {
    "token",      "accesskey",   "accesskeyid",   "secretkey",    "secretaccesskey",
    "secret",     "signature",   "sig",           "password",     "signatureprovided",
    "credential", "credentials", "authorization", "stringtosign", "canonicalrequest"};

bool isNameCharacter(char character) {
  return std::isalnum(static_cast<unsigned char>(character)) != 0 || character == '_' ||
         character == '-';
}

bool isSecretName(const std::string& name) {
  std::string plain;
  for (const char character : name) {
    if (character != '_' && character != '-') {
      plain += static_cast<char>(std::tolower(static_cast<unsigned char>(character)));
    }
  }
  return std::any_of(
      std::begin(kSecretEndings), std::end(kSecretEndings), [&plain](const std::string& ending) {
        return plain.size() >= ending.size() &&
               plain.compare(plain.size() - ending.size(), ending.size(), ending) == 0;
      });
}

std::size_t skipSpace(const std::string& text, std::size_t position) {
  return std::min(text.find_first_not_of(" \t\r\n", position), text.size());
}

// Where the quoted text that begins at position ends: at its closing quote, or with the text.
std::size_t endOfQuoted(const std::string& text, std::size_t position) {
  const char quote = text[position];
  for (++position; position < text.size() && text[position] != quote; ++position) {
    if (text[position] == '\\') {
      ++position;
    }
  }
  return std::min(position, text.size());
}

}  // namespace

std::string redactSecrets(const std::string& text) {
  std::string result;
  std::size_t position = 0;
  while (position < text.size() && result.size() < kLongestText) {
    if (!isNameCharacter(text[position])) {
      result += text[position++];
      continue;
    }
    std::size_t end = position;
    while (end < text.size() && isNameCharacter(text[end])) {
      ++end;
    }
    const std::string name = text.substr(position, end - position);
    result += name;
    position = end;
    if (!isSecretName(name)) {
      continue;
    }
    // name": "value", name: value, name=value, name="value" or <name>value
    std::size_t separator = position;
    if (separator < text.size() && (text[separator] == '"' || text[separator] == '\'')) {
      ++separator;
    }
    separator = skipSpace(text, separator);
    if (separator >= text.size() || std::string(":=>").find(text[separator]) == std::string::npos) {
      continue;
    }
    const std::size_t value = skipSpace(text, separator + 1);
    if (value >= text.size() || text[value] == '{' || text[value] == '[' || text[value] == '<') {
      continue;
    }
    result.append(text, position, value - position);
    if (text[value] == '"' || text[value] == '\'') {
      result += text[value];
      result += "***";
      position = endOfQuoted(text, value);
    } else {
      result += "***";
      position = std::min(text.find_first_of(text[separator] == '>' ? "<" : "&<>\"',;}\r\n", value),
                          text.size());
    }
  }
  if (result.size() > kLongestText || position < text.size()) {
    result.resize(std::min(result.size(), kLongestText));
    result += "...";
  }
  return result;
}

}  // namespace kovo
