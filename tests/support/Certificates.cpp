#include "support/Certificates.h"

#include <vector>

#include "support/ChildProcess.h"

namespace RetraTest {

namespace {

const char* const kOpenssl = "/usr/bin/openssl";

// Extension sections for each certificate: one CA, two leaves it signs, one self-signed leaf.
const char* const kConfig = R"(
[req]
distinguished_name = subject
[subject]

[ca]
basicConstraints = critical, CA:TRUE
keyUsage = critical, keyCertSign, cRLSign
subjectKeyIdentifier = hash

[localhost]
basicConstraints = critical, CA:FALSE
keyUsage = critical, digitalSignature
extendedKeyUsage = serverAuth
subjectAltName = DNS:localhost, IP:127.0.0.1, IP:::1
subjectKeyIdentifier = hash
authorityKeyIdentifier = keyid

[wrong]
basicConstraints = critical, CA:FALSE
keyUsage = critical, digitalSignature
extendedKeyUsage = serverAuth
subjectAltName = DNS:wrong.example
subjectKeyIdentifier = hash
authorityKeyIdentifier = keyid

[selfsigned]
basicConstraints = critical, CA:FALSE
keyUsage = critical, digitalSignature
extendedKeyUsage = serverAuth
subjectAltName = DNS:localhost, IP:127.0.0.1, IP:::1
subjectKeyIdentifier = hash
)";

const char* const kDays = "30";

}  // namespace

Certificates::Certificates() {
  dir_.write("openssl.cnf", kConfig);
  for (const char* name : {"ca", "server", "wrong", "self"}) makeKey(name);
  openssl({"req", "-x509", "-new", "-key", "ca.key", "-subj", "/CN=Retra Test CA", "-days", kDays,
           "-config", "openssl.cnf", "-extensions", "ca", "-out", "ca.crt"});
  sign("server", "/CN=localhost", "localhost", 2);
  sign("wrong", std::string("/CN=") + kWrongName, "wrong", 3);
  openssl({"req", "-x509", "-new", "-key", "self.key", "-subj", "/CN=localhost", "-days", kDays,
           "-config", "openssl.cnf", "-extensions", "selfsigned", "-out", "self.crt"});
  serverPin_ = pinOf("server");
  otherPin_ = pinOf("wrong");
}

void Certificates::makeKey(const std::string& name) const {
  openssl({"genpkey", "-algorithm", "EC", "-pkeyopt", "ec_paramgen_curve:P-256", "-out",
           name + ".key"});
}

void Certificates::sign(const std::string& name, const std::string& subject,
                        const std::string& extensions, int serial) const {
  openssl({"req", "-new", "-key", name + ".key", "-subj", subject, "-config", "openssl.cnf", "-out",
           name + ".csr"});
  openssl({"x509", "-req", "-in", name + ".csr", "-CA", "ca.crt", "-CAkey", "ca.key", "-set_serial",
           std::to_string(serial), "-days", kDays, "-extfile", "openssl.cnf", "-extensions",
           extensions, "-out", name + ".crt"});
}

std::string Certificates::pinOf(const std::string& key) const {
  openssl({"pkey", "-in", key + ".key", "-pubout", "-outform", "DER", "-out", key + ".pub.der"});
  openssl({"dgst", "-sha256", "-binary", "-out", key + ".pub.sha256", key + ".pub.der"});
  openssl({"base64", "-A", "-in", key + ".pub.sha256", "-out", key + ".pin"});
  std::string base64 = dir_.read(key + ".pin");
  while (!base64.empty() && (base64.back() == '\n' || base64.back() == '\r')) base64.pop_back();
  return "sha256//" + base64;
}

void Certificates::openssl(std::initializer_list<std::string> args) const {
  std::vector<std::string> argv{kOpenssl};
  argv.insert(argv.end(), args);
  (void)ChildProcess::run(argv, dir_.path());
}

}  // namespace RetraTest
