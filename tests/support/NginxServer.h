#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "support/TempDir.h"

namespace RetraTest {

class ChildProcess;

// Debian's nginx (/usr/sbin/nginx) run as a child process of the test, with its configuration,
// pid file, logs, temporary paths and document root in a temporary directory of its own. It
// serves plain HTTP on 127.0.0.1 and [::1] (the same port), and HTTPS on two other ports with
// self-signed EC certificates made for it by the openssl command line: the server's, for
// localhost, 127.0.0.1 and ::1, and one for another name. No client trusts either, so
// verification fails unless it is switched off. Keep-alive is on.
//
// Content and routes:
//   /small.txt        1 KiB of text (smallText())
//   /large.bin        `largeSize` zero bytes (a sparse file, quick to make at any size)
//   /status/404       404
//   /redirect/1       302 -> /small.txt (a relative Location)
//   /basic/secret.txt behind basic auth, user kUser and password kPassword
// Tests may add files under root() at any time.
//
// The constructor returns once every port listens; it throws std::runtime_error with nginx's
// error log when nginx does not start. Start it from the test's own thread (see ChildProcess).
//
//   RetraTest::NginxServer nginx;
//   fetch(nginx.httpUrl("/small.txt"));                      // 200, 1024 bytes
class NginxServer {
 public:
  static constexpr const char* kUser = "user";
  static constexpr const char* kPassword = "passwd";

  explicit NginxServer(uint64_t largeSize = 1 << 20);
  ~NginxServer();
  NginxServer(const NginxServer&) = delete;
  NginxServer& operator=(const NginxServer&) = delete;

  [[nodiscard]] uint16_t port() const { return port_; }
  [[nodiscard]] uint16_t tlsPort() const { return tlsPort_; }
  // "http://127.0.0.1:port" + path; "http://[::1]:port" + path.
  [[nodiscard]] std::string httpUrl(const std::string& path = "/") const;
  [[nodiscard]] std::string httpUrl6(const std::string& path = "/") const;
  // "https://127.0.0.1:tlsPort" + path (the certificate names the address).
  [[nodiscard]] std::string httpsUrl(const std::string& path = "/") const;
  // The same on the port whose certificate is for another name.
  [[nodiscard]] std::string httpsWrongNameUrl(const std::string& path = "/") const;
  // Public key pins in libcurl's form ("sha256//BASE64"): the server's key, and another key.
  [[nodiscard]] const std::string& serverPin() const { return serverPin_; }
  [[nodiscard]] const std::string& otherPin() const { return otherPin_; }

  // The document root.
  [[nodiscard]] std::string root() const { return dir_.path("root"); }
  [[nodiscard]] uint64_t largeSize() const { return largeSize_; }
  // The 1 KiB served as /small.txt.
  [[nodiscard]] static std::string smallText();
  // What nginx has logged so far.
  [[nodiscard]] std::string errorLog() const;

 private:
  void writeContent();
  void writeConfig() const;
  // One attempt on freshly chosen ports: true when nginx listens on all of them, false when a
  // port was taken meanwhile (worth another attempt); throws on any other failure.
  bool start();

  uint64_t largeSize_;
  TempDir dir_{"retra-nginx"};
  std::string serverPin_;
  std::string otherPin_;
  uint16_t port_ = 0;
  uint16_t tlsPort_ = 0;
  uint16_t wrongNamePort_ = 0;
  std::unique_ptr<ChildProcess> nginx_;
};

}  // namespace RetraTest
