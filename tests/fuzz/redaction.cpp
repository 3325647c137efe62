// Error texts and log lines made of what a server says.
#include "fuzz/fuzz_target.h"
#include "upload/secret_redaction.h"

namespace kovo::test {
namespace {

constexpr const char* kNames[] = {"Authorization", "sig",         "secretKey",
                                  "SessionToken",  "AccessKeyId", "x-amz-security-token"};

}  // namespace

// A line before the place of the secret, a line behind it.
KOVO_FUZZ_TARGET(redaction) {
  const std::string text = input.line();
  const std::string after = input.rest();

  const std::string redacted = redactSecrets(text + "\n" + after);
  require(redacted.size() <= 64UL * 1024 + 3, "a text is bounded");

  if (contains(text + after, kSecret)) {
    return;
  }
  // Quotes before it that are not closed leave open what is quoted.
  std::string before;
  for (const char c : text) {
    before += c == '"' || c == '\'' || c == '\\' ? '.' : c;
  }
  for (const std::string name : kNames) {
    for (const std::string& planted :
         {"\"" + name + "\":\"" + kSecret + "\"", "\"" + name + "\" : \"" + kSecret + "\"",
          name + ": " + kSecret, name + "=" + kSecret + "&", "<" + name + ">" + kSecret + "<",
          name + "='" + kSecret + "'"}) {
      require(!contains(redactSecrets(before + "\n" + planted + " .\n" + after), kSecret),
              "a credential is hidden wherever it stands");
    }
  }
}

}  // namespace kovo::test
