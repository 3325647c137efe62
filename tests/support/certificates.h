#pragma once

#include <string>

namespace kovo::test {

/** PEM files of a throw-away authority and of a server certificate it signed. */
struct Certificates {
  std::string authority;
  std::string certificate; /* for 127.0.0.1 and localhost */
  std::string key;
};

/** Makes them, with the openssl program, inside folder. */
Certificates makeCertificates(const std::string& folder);

}  // namespace kovo::test
