#pragma once

#include <cstdint>
#include <string_view>
#include <vector>

#include "Ipkit/Ip6Addr.h"
#include "Ipkit/IpAddr.h"
#include "Orb/String.h"

namespace Dnsr {

// The address and UDP/TCP port of one DNS server, IPv4 or IPv6.
//
// Text form: "address[:port]", with an IPv6 address in brackets when a port follows; the port
// defaults to 53. A list is comma-separated, as in the variable DNSR_SERVERS:
//
//   auto servers = Dnsr::NameServer::listOf("127.0.0.1:5353,[::1]:5353,192.0.2.53");
//   servers[1].isIp6();   // true
//   servers[2].port();    // 53
class NameServer {
 public:
  static constexpr uint16_t defaultPort = 53;

  explicit NameServer(const Ipkit::IpAddr& address, uint16_t port = defaultPort)
      : ip_(address), port_(port) {}
  explicit NameServer(const Ipkit::Ip6Addr& address, uint16_t port = defaultPort)
      : ip6_(address), isIp6_(true), port_(port) {}

  // One server from its text form; text that is not one raises the range exception.
  [[nodiscard]] static NameServer fromText(std::string_view text);
  // A comma-separated list; blanks around entries and empty entries are skipped, so blank
  // text is the empty list. A malformed entry raises the range exception.
  [[nodiscard]] static std::vector<NameServer> listOf(std::string_view text);

  [[nodiscard]] bool isIp6() const noexcept { return isIp6_; }
  // The address of an IPv4 server (0.0.0.0 for an IPv6 one), and the reverse.
  [[nodiscard]] const Ipkit::IpAddr& ipAddress() const noexcept { return ip_; }
  [[nodiscard]] const Ipkit::Ip6Addr& ip6Address() const noexcept { return ip6_; }
  [[nodiscard]] uint16_t port() const noexcept { return port_; }

  // The text form with the port always written: "127.0.0.1:53", "[::1]:5353".
  [[nodiscard]] Orb::String str() const;

  friend bool operator==(const NameServer&, const NameServer&) = default;

 private:
  Ipkit::IpAddr ip_;
  Ipkit::Ip6Addr ip6_;
  bool isIp6_ = false;
  uint16_t port_ = defaultPort;
};

}  // namespace Dnsr
