#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "support/TempDir.h"

namespace RetraTest {

class ChildProcess;

// httpbin (Debian's python3-httpbin) served by werkzeug in one child process with a thread per
// request, on a port of 127.0.0.1 the kernel picks. Routes used by tests include /get /post
// /put /patch /delete /anything /headers /user-agent /status/N /delay/N (N up to 10 seconds)
// /redirect/N /basic-auth/U/P /digest-auth/auth/U/P /bytes/N /stream/N /gzip; each echoes the
// request back as JSON where it makes sense.
//
// The constructor returns once httpbin listens; it throws std::runtime_error with
// httpbin's log when it does not start. The destructor stops it (SIGTERM) and reaps it. Start
// it from the test's own thread (see ChildProcess).
//
//   RetraTest::HttpbinServer httpbin;
//   fetch(httpbin.url("/headers"));   // {"headers": {"Host": "127.0.0.1:...", ...}}
class HttpbinServer {
 public:
  HttpbinServer();
  ~HttpbinServer();
  HttpbinServer(const HttpbinServer&) = delete;
  HttpbinServer& operator=(const HttpbinServer&) = delete;

  [[nodiscard]] uint16_t port() const { return port_; }
  // "http://127.0.0.1:port" + path.
  [[nodiscard]] std::string url(const std::string& path = "/") const;
  // What httpbin has logged so far (one line per request, and any traceback).
  [[nodiscard]] std::string log() const;

 private:
  TempDir dir_{"retra-httpbin"};
  uint16_t port_ = 0;
  std::unique_ptr<ChildProcess> python_;
};

}  // namespace RetraTest
