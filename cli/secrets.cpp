#include "secrets.h"

#include <algorithm>
#include <cctype>
#include <initializer_list>
#include <vector>

#include "url_text.h"

namespace kovo::cli {

namespace {

std::vector<std::string>& remembered() {
  static std::vector<std::string> all;
  return all;
}

std::string lowerCase(std::string_view text) {
  std::string lower(text);
  std::transform(lower.begin(), lower.end(), lower.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return lower;
}

bool isAnyOf(std::string_view text, std::initializer_list<std::string_view> words) {
  return std::find(words.begin(), words.end(), text) != words.end();
}

bool holdsAnyOf(std::string_view text, std::initializer_list<std::string_view> words) {
  return std::any_of(words.begin(), words.end(), [&](std::string_view word) {
    return text.find(word) != std::string_view::npos;
  });
}

}  // namespace

void rememberSecret(std::string_view text) {
  // A shorter one would blot out half of every message, and gives little away.
  constexpr std::size_t kShortest = 4;
  for (const std::string& one : {std::string(text), percentDecoded(text)}) {
    if (one.size() < kShortest) continue;
    std::vector<std::string>& all = remembered();
    if (std::find(all.begin(), all.end(), one) == all.end()) all.push_back(one);
  }
  // Longer ones first, so that one that holds another is replaced whole.
  std::sort(remembered().begin(), remembered().end(),
            [](const auto& a, const auto& b) { return a.size() > b.size(); });
}

void rememberSecretsOfUrl(std::string_view url) {
  // Some parameters that may carry a key carry a plain word elsewhere; displayUrl hides both, but a
  // word must not vanish from messages.
  constexpr std::size_t kShortestValue = 16;
  forEachSecretOf(url, [](std::string_view secret, bool isParameter) {
    if (!isParameter || secret.size() >= kShortestValue) rememberSecret(secret);
  });
}

void rememberSecretsOfHeader(std::string_view name, std::string_view value) {
  if (!isSecretHeader(name)) return;
  rememberSecret(value);
  // "Bearer TOKEN": the second word alone is as good as the whole.
  const std::size_t blank = value.find(' ');
  if (blank != std::string_view::npos) rememberSecret(value.substr(blank + 1));
}

std::string withoutSecrets(std::string text) {
  for (const std::string& secret : remembered()) {
    for (std::size_t at = text.find(secret); at != std::string::npos; at = text.find(secret, at)) {
      text.replace(at, secret.size(), "***");
      at += 3;
    }
  }
  return text;
}

bool isSecretHeader(std::string_view name) {
  const std::string lower = lowerCase(name);
  return holdsAnyOf(lower, {"auth", "cookie", "token", "secret", "password", "api-key", "apikey",
                            "credential", "signature"});
}

bool isSecretParameter(std::string_view name) {
  const std::string lower = lowerCase(name);
  return isAnyOf(lower, {"sig", "key", "pass", "pwd", "code", "sid", "jwt", "session", "policy"}) ||
         holdsAnyOf(lower, {"token", "signature", "secret", "passwd", "password", "credential",
                            "apikey", "api_key", "api-key", "accesskey", "auth", "hmac"});
}

}  // namespace kovo::cli
