#pragma once

#include <string>

namespace E2eTest {

// Makes libcurl in this process trust a test CA, for as long as the object lives.
//
// The library's requests carry no CA option: libcurl verifies against the CA bundle it was
// built with (CURLINFO_CAINFO, /etc/ssl/certs/ca-certificates.crt on Debian). The environment
// cannot redirect that: CURL_CA_BUNDLE is read by the curl tool only, and SSL_CERT_FILE /
// SSL_CERT_DIR only feed OpenSSL's default paths, which libcurl does not load once it has a
// bundle. So the test process moves into a private mount namespace (once) and bind-mounts,
// over the bundle's path, a copy of the system bundle with the test CA appended. Nothing
// outside this process sees the change; the mount is undone when the object goes.
//
// This needs CAP_SYS_ADMIN (root in a container will do). Without it `active()` is false and
// `reason()` says why; tests that depend on verification succeeding skip themselves.
//
//   E2eTest::TrustedCa trust(nginx.certificates().caCert());
//   if (!trust.active()) GTEST_SKIP() << trust.reason();
//   ... https://127.0.0.1:port/ now verifies ...
//
// Create it after the servers a test starts (their threads keep the namespace they had) and
// before the engine's first TLS transfer; use one at a time.
class TrustedCa {
 public:
  explicit TrustedCa(const std::string& caCert);
  ~TrustedCa();
  TrustedCa(const TrustedCa&) = delete;
  TrustedCa& operator=(const TrustedCa&) = delete;

  [[nodiscard]] bool active() const { return active_; }
  [[nodiscard]] const std::string& reason() const { return reason_; }

 private:
  void fail(const std::string& what);

  std::string bundlePath_;  // libcurl's default CA bundle, mounted over while active
  std::string copyPath_;    // the extended copy, removed with the object
  bool active_ = false;
  std::string reason_;
};

}  // namespace E2eTest
