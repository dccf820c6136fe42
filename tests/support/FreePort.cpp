#include "support/FreePort.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <stdexcept>

namespace RetraTest {

namespace {

socklen_t loopbackAddress(bool ipv6, uint16_t port, sockaddr_storage* address) {
  *address = {};
  if (ipv6) {
    auto* a = reinterpret_cast<sockaddr_in6*>(address);
    a->sin6_family = AF_INET6;
    a->sin6_addr = in6addr_loopback;
    a->sin6_port = htons(port);
    return sizeof *a;
  }
  auto* a = reinterpret_cast<sockaddr_in*>(address);
  a->sin_family = AF_INET;
  a->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  a->sin_port = htons(port);
  return sizeof *a;
}

// Binds a TCP socket to `port` on loopback (0: any) and returns the port bound, 0 on failure.
uint16_t bindTo(bool ipv6, uint16_t port) {
  int s = ::socket(ipv6 ? AF_INET6 : AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (s < 0) return 0;
  sockaddr_storage address;
  socklen_t length = loopbackAddress(ipv6, port, &address);
  uint16_t bound = 0;
  if (::bind(s, reinterpret_cast<sockaddr*>(&address), length) == 0 &&
      ::getsockname(s, reinterpret_cast<sockaddr*>(&address), &length) == 0) {
    bound = ntohs(ipv6 ? reinterpret_cast<sockaddr_in6*>(&address)->sin6_port
                       : reinterpret_cast<sockaddr_in*>(&address)->sin_port);
  }
  ::close(s);
  return bound;
}

}  // namespace

uint16_t FreePort::onLoopback(bool ipv6) {
  uint16_t port = bindTo(ipv6, 0);
  if (port == 0) throw std::runtime_error("no free TCP port on loopback");
  return port;
}

uint16_t FreePort::onIp4AndIp6() {
  for (int attempt = 0; attempt < 50; ++attempt) {
    uint16_t port = onLoopback(false);
    if (bindTo(true, port) == port) return port;
  }
  throw std::runtime_error("no TCP port free on both 127.0.0.1 and ::1");
}

}  // namespace RetraTest
