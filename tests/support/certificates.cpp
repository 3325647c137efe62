#include "support/certificates.h"

#include "support/child_process.h"
#include "support/resource.h"

namespace kovo::test {

Certificates makeCertificates(const std::string& folder) {
  const auto in = [&folder](const char* name) { return folder + '/' + name; };
  const std::string log = in("openssl.log");
  Certificates made{in("ca.pem"), in("server.pem"), in("server.key")};
  writeFile(in("server.ext"),
            "subjectAltName=IP:127.0.0.1,DNS:localhost\n"
            "basicConstraints=CA:FALSE\nextendedKeyUsage=serverAuth\n");
  ChildProcess::run({"openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt",
                     "ec_paramgen_curve:prime256v1", "-nodes", "-days", "2", "-subj",
                     "/CN=KOVO test authority", "-keyout", in("ca.key"), "-out", made.authority},
                    log);
  ChildProcess::run(
      {"openssl", "req", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes",
       "-subj", "/CN=localhost", "-keyout", made.key, "-out", in("server.csr")},
      log);
  ChildProcess::run({"openssl", "x509", "-req", "-in", in("server.csr"), "-CA", made.authority,
                     "-CAkey", in("ca.key"), "-CAcreateserial", "-days", "2", "-extfile",
                     in("server.ext"), "-out", made.certificate},
                    log);
  return made;
}

}  // namespace kovo::test
