#pragma once

#include <string>
#include <string_view>

namespace kovo::cli {

// The texts that nothing this program prints may show: passwords, tokens and signatures of the
// command line. Process-wide; texts are added before transfers start, any thread may ask after.

// Remembers text and, when it is percent-encoded, what it stands for.
void rememberSecret(std::string_view text);
// Remembers user names, passwords and the values of query parameters that grant access.
void rememberSecretsOfUrl(std::string_view url);
// Remembers the value of a header that carries credentials.
void rememberSecretsOfHeader(std::string_view name, std::string_view value);

// text with every remembered secret replaced by "***".
std::string withoutSecrets(std::string text);

// Whether a header of this name, or a query parameter, carries what must not be shown.
bool isSecretHeader(std::string_view name);
bool isSecretParameter(std::string_view name);

}  // namespace kovo::cli
