#pragma once

#include <string>

#include "support/TempDir.h"

namespace RetraTest {

// A throw-away public key infrastructure for TLS tests, made with the openssl command line in a
// temporary directory of its own (removed with the object). All keys are EC P-256, so making
// the lot takes a fraction of a second.
//
//   - a CA (caCert/caKey) that clients trust through CURLOPT_CAINFO;
//   - the server's certificate, signed by the CA, for "localhost", 127.0.0.1 and ::1;
//   - a certificate signed by the CA for another name (kWrongName), for name-mismatch tests;
//   - a self-signed certificate for "localhost" that no client trusts;
//   - the server key's public key pin in libcurl's form ("sha256//BASE64") and a pin of another
//     key that never matches the server.
//
//   RetraTest::Certificates pki;
//   curl_easy_setopt(easy, CURLOPT_CAINFO, pki.caCert().c_str());
//   curl_easy_setopt(easy, CURLOPT_PINNEDPUBLICKEY, pki.serverPin().c_str());
class Certificates {
 public:
  static constexpr const char* kWrongName = "wrong.example";

  // Makes every key and certificate; throws std::runtime_error with openssl's output when a
  // step fails.
  Certificates();
  Certificates(const Certificates&) = delete;
  Certificates& operator=(const Certificates&) = delete;

  // Paths of PEM files.
  [[nodiscard]] std::string caCert() const { return dir_.path("ca.crt"); }
  [[nodiscard]] std::string caKey() const { return dir_.path("ca.key"); }
  [[nodiscard]] std::string serverCert() const { return dir_.path("server.crt"); }
  [[nodiscard]] std::string serverKey() const { return dir_.path("server.key"); }
  [[nodiscard]] std::string wrongNameCert() const { return dir_.path("wrong.crt"); }
  [[nodiscard]] std::string wrongNameKey() const { return dir_.path("wrong.key"); }
  [[nodiscard]] std::string selfSignedCert() const { return dir_.path("self.crt"); }
  [[nodiscard]] std::string selfSignedKey() const { return dir_.path("self.key"); }

  // "sha256//" and the base64 SHA-256 of the server key's SubjectPublicKeyInfo.
  [[nodiscard]] const std::string& serverPin() const { return serverPin_; }
  // A pin of the same form for another key: it never matches the server.
  [[nodiscard]] const std::string& otherPin() const { return otherPin_; }

  // The directory holding the files.
  [[nodiscard]] const std::string& dir() const { return dir_.path(); }

 private:
  void makeKey(const std::string& name) const;
  void sign(const std::string& name, const std::string& subject, const std::string& extensions,
            int serial) const;
  [[nodiscard]] std::string pinOf(const std::string& key) const;
  void openssl(std::initializer_list<std::string> args) const;

  TempDir dir_{"retra-pki"};
  std::string serverPin_;
  std::string otherPin_;
};

}  // namespace RetraTest
