#include "support/LoopbackSocket.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace RetraTest {

std::string LoopbackSocket::exchange(uint16_t port, const std::string& bytes, bool ipv6,
                                     std::chrono::milliseconds limit) {
  int s = ::socket(ipv6 ? AF_INET6 : AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (s < 0) return "";
  sockaddr_storage address{};
  socklen_t length;
  if (ipv6) {
    auto* a = reinterpret_cast<sockaddr_in6*>(&address);
    a->sin6_family = AF_INET6;
    a->sin6_addr = in6addr_loopback;
    a->sin6_port = htons(port);
    length = sizeof *a;
  } else {
    auto* a = reinterpret_cast<sockaddr_in*>(&address);
    a->sin_family = AF_INET;
    a->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    a->sin_port = htons(port);
    length = sizeof *a;
  }
  std::string reply;
  if (::connect(s, reinterpret_cast<sockaddr*>(&address), length) == 0) {
    size_t sent = 0;
    while (sent < bytes.size()) {
      ssize_t n = ::send(s, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
      if (n <= 0) break;
      sent += size_t(n);
    }
    auto deadline = std::chrono::steady_clock::now() + limit;
    while (true) {
      auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
          deadline - std::chrono::steady_clock::now());
      pollfd readable{s, POLLIN, 0};
      if (left.count() <= 0 || ::poll(&readable, 1, int(left.count())) <= 0) break;
      char buffer[4096];
      ssize_t n = ::recv(s, buffer, sizeof buffer, 0);
      if (n <= 0) break;
      reply.append(buffer, size_t(n));
    }
  }
  ::close(s);
  return reply;
}

}  // namespace RetraTest
