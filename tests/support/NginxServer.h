#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "support/Certificates.h"
#include "support/TempDir.h"

namespace RetraTest {

class ChildProcess;

// Debian's nginx (/usr/sbin/nginx) run as a child process of the test, with its configuration,
// pid file, logs, temporary paths and document root in a temporary directory of its own. It
// serves plain HTTP on 127.0.0.1 and [::1] (the same port), and HTTPS on two other ports with
// the self-signed certificates made for it (see certificates()); keep-alive is on.
//
// Content and routes:
//   /small.txt        1 KiB of text (smallText())
//   /large.bin        `largeSize` zero bytes (a sparse file, quick to make at any size)
//   /status/404       404;  /status/500: 500
//   /redirect/3       302 -> /redirect/2 -> /redirect/1 -> /small.txt (relative Locations)
//   /basic/secret.txt behind basic auth, user kUser and password kPassword
// Tests may add files under root() at any time.
//
// The constructor returns once every port accepts connections; it throws std::runtime_error
// with nginx's error log when nginx does not start. The destructor stops nginx (SIGTERM) and
// reaps it. Start it from the test's own thread (see ChildProcess).
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

  // Plain HTTP, on both 127.0.0.1 and ::1.
  [[nodiscard]] uint16_t port() const { return port_; }
  // HTTPS with the server certificate (localhost, 127.0.0.1, ::1), on both addresses.
  [[nodiscard]] uint16_t tlsPort() const { return tlsPort_; }

  // "http://127.0.0.1:port" + path; "http://[::1]:port" + path.
  [[nodiscard]] std::string httpUrl(const std::string& path = "/") const;
  [[nodiscard]] std::string httpUrl6(const std::string& path = "/") const;
  // "https://127.0.0.1:tlsPort" + path (the certificate names the address).
  [[nodiscard]] std::string httpsUrl(const std::string& path = "/") const;
  // The same on the port whose certificate is for Certificates::kWrongName.
  [[nodiscard]] std::string httpsWrongNameUrl(const std::string& path = "/") const;

  // The document root.
  [[nodiscard]] std::string root() const { return dir_.path("root"); }
  [[nodiscard]] const Certificates& certificates() const { return certificates_; }
  [[nodiscard]] uint64_t largeSize() const { return largeSize_; }
  // The 1 KiB served as /small.txt.
  [[nodiscard]] static std::string smallText();
  // What nginx has logged so far.
  [[nodiscard]] std::string errorLog() const;

 private:
  void writeContent() const;
  void writeConfig() const;
  // One attempt on freshly chosen ports: true when nginx listens on all of them, false when a
  // port was taken meanwhile (worth another attempt); throws on any other failure.
  bool start();

  uint64_t largeSize_;
  TempDir dir_{"retra-nginx"};
  Certificates certificates_;
  uint16_t port_ = 0;
  uint16_t tlsPort_ = 0;
  uint16_t wrongNamePort_ = 0;
  std::unique_ptr<ChildProcess> nginx_;
};

}  // namespace RetraTest
