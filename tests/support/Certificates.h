#pragma once

#include <string>

#include "support/TempDir.h"

namespace RetraTest {

// Two self-signed EC P-256 certificates for TLS tests, made with the openssl command line in a
// temporary directory of their own: the server's, for localhost, 127.0.0.1 and ::1, and one
// for another name (kWrongName). No client trusts either, so verification fails unless it is
// switched off; the name check is libcurl's separate switch. Pins are in libcurl's form
// ("sha256//BASE64").
class Certificates {
 public:
  static constexpr const char* kWrongName = "wrong.example";

  // Throws std::runtime_error with openssl's output when a step fails.
  Certificates();
  Certificates(const Certificates&) = delete;
  Certificates& operator=(const Certificates&) = delete;

  [[nodiscard]] std::string serverCert() const { return dir_.path("server.crt"); }
  [[nodiscard]] std::string serverKey() const { return dir_.path("server.key"); }
  [[nodiscard]] std::string wrongNameCert() const { return dir_.path("wrong.crt"); }
  [[nodiscard]] std::string wrongNameKey() const { return dir_.path("wrong.key"); }
  // The pin of the server's key, and of the other key (never matches the server).
  [[nodiscard]] const std::string& serverPin() const { return serverPin_; }
  [[nodiscard]] const std::string& otherPin() const { return otherPin_; }

 private:
  void make(const std::string& name, const std::string& altNames);
  [[nodiscard]] std::string pinOf(const std::string& name) const;
  void openssl(std::initializer_list<std::string> args) const;

  TempDir dir_{"retra-pki"};
  std::string serverPin_;
  std::string otherPin_;
};

}  // namespace RetraTest
