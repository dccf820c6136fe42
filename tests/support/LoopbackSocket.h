#pragma once

#include <chrono>
#include <cstdint>
#include <string>

namespace RetraTest {

// One raw exchange with a loopback TCP server, below any HTTP client: for checking that a
// server answers at all, or for looking at the exact bytes it writes.
//
//   std::string reply = RetraTest::LoopbackSocket::exchange(port, "GET / HTTP/1.1\r\n...\r\n\r\n");
//   EXPECT_EQ(reply.rfind("HTTP/1.1 200", 0), 0u);
class LoopbackSocket {
 public:
  // Connects to 127.0.0.1:port (or [::1]:port), sends `bytes`, and returns everything the peer
  // writes until it closes the connection or `limit` has passed. Empty when it cannot connect.
  [[nodiscard]] static std::string exchange(
      uint16_t port, const std::string& bytes, bool ipv6 = false,
      std::chrono::milliseconds limit = std::chrono::milliseconds(5000));
};

}  // namespace RetraTest
