#include "upload/secret_redaction.h"

#include <algorithm>
#include <cctype>
#include <string_view>

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

bool isOneOf(const std::string& text, std::size_t position, std::string_view characters) {
  return position < text.size() && characters.find(text[position]) != std::string_view::npos;
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

// Where a text without quotes around it ends. Quoted parts belong to it: name="value".
std::size_t endOfPlain(const std::string& text, std::size_t position, const char* ends) {
  for (;;) {
    position = std::min(text.find_first_of(ends, position), text.size());
    const bool isQuotedPart = position < text.size() && position > 0 &&
                              isOneOf(text, position, "\"'") && isOneOf(text, position - 1, "=");
    if (!isQuotedPart) {
      return position;
    }
    position = std::min(endOfQuoted(text, position) + 1, text.size());
  }
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
    const std::size_t nameStart = position;
    const std::string name = text.substr(position, end - position);
    result += name;
    position = end;
    if (!isSecretName(name)) {
      continue;
    }
    // name": "value", name: value, name=value, name="value" or <name>value
    const bool isNameQuoted = isOneOf(text, position, "\"'");
    const std::size_t separator = skipSpace(text, position + (isNameQuoted ? 1 : 0));
    const bool isElement = nameStart > 0 && isOneOf(text, nameStart - 1, "<:");
    if (!isOneOf(text, separator, isElement ? ":=>" : ":=")) {
      continue;
    }
    const std::size_t value = skipSpace(text, separator + 1);
    if (value >= text.size() || text[value] == '{' || text[value] == '[' || text[value] == '<') {
      continue;
    }
    const bool isQuoted = text[value] == '"' || text[value] == '\'';
    const std::size_t closing = isQuoted ? endOfQuoted(text, value) : value;
    if (isQuoted && !isNameQuoted && isOneOf(text, skipSpace(text, closing + 1), ":=")) {
      continue;  // the quoted text is itself the name of what follows
    }
    result.append(text, position, value - position);
    if (isQuoted) {
      result += text[value];
      result += "***";
      position = closing;
    } else {
      result += "***";
      position = endOfPlain(text, value, text[separator] == '>' ? "<" : "&<>\"',;}\r\n");
    }
  }
  if (result.size() > kLongestText || position < text.size()) {
    result.resize(std::min(result.size(), kLongestText));
    result += "...";
  }
  return result;
}

}  // namespace kovo
