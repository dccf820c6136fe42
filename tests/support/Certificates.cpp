#include "support/Certificates.h"

#include <vector>

#include "support/ChildProcess.h"

namespace RetraTest {

Certificates::Certificates() {
  make("server", "DNS:localhost,IP:127.0.0.1,IP:::1");
  make("wrong", std::string("DNS:") + kWrongName);
  serverPin_ = pinOf("server");
  otherPin_ = pinOf("wrong");
}

void Certificates::make(const std::string& name, const std::string& altNames) {
  openssl({"genpkey", "-algorithm", "EC", "-pkeyopt", "ec_paramgen_curve:P-256", "-out",
           name + ".key"});
  openssl({"req", "-x509", "-new", "-key", name + ".key", "-subj", "/CN=" + name, "-days", "30",
           "-addext", "subjectAltName=" + altNames, "-out", name + ".crt"});
}

std::string Certificates::pinOf(const std::string& name) const {
  openssl({"pkey", "-in", name + ".key", "-pubout", "-outform", "DER", "-out", name + ".der"});
  openssl({"dgst", "-sha256", "-binary", "-out", name + ".sha256", name + ".der"});
  openssl({"base64", "-A", "-in", name + ".sha256", "-out", name + ".pin"});
  std::string base64 = dir_.read(name + ".pin");
  while (!base64.empty() && (base64.back() == '\n' || base64.back() == '\r')) base64.pop_back();
  return "sha256//" + base64;
}

void Certificates::openssl(std::initializer_list<std::string> args) const {
  std::vector<std::string> argv{"/usr/bin/openssl"};
  argv.insert(argv.end(), args);
  (void)ChildProcess::run(argv, dir_.path());
}

}  // namespace RetraTest
