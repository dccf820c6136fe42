#pragma once

#include <cstdint>

namespace RetraTest {

// TCP ports on the loopback interface for servers that take their port on a command line. A port is
// free when asked for: bind to port 0, read the port the kernel chose, close. Nothing reserves it
// afterwards, so a server started on it may, rarely, lose it to another socket and should be ready
// to try again with another.
//
//   uint16_t port = RetraTest::FreePort::onIp4AndIp6();
//   ... start a server listening on 127.0.0.1:port and [::1]:port ...
class FreePort {
 public:
  // A port free on 127.0.0.1 (or ::1 when `ipv6`).
  [[nodiscard]] static uint16_t onLoopback(bool ipv6 = false);
  // A port free on both 127.0.0.1 and ::1 at once.
  [[nodiscard]] static uint16_t onIp4AndIp6();
};

}  // namespace RetraTest
