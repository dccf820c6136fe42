#include "Dnsr/NameServer.h"

#include <gtest/gtest.h>

#include "Orb/Exception.h"

namespace {

TEST(NameServerTest, ReadsAddressesWithAndWithoutPorts) {
  auto servers = Dnsr::NameServer::listOf(" 127.0.0.1:5353, [::1]:53535,192.0.2.53,2001:db8::53 ,");
  ASSERT_EQ(servers.size(), 4u);
  EXPECT_FALSE(servers[0].isIp6());
  EXPECT_EQ(servers[0].ipAddress(), Ipkit::IpAddr::loopback());
  EXPECT_EQ(servers[0].port(), 5353);
  EXPECT_TRUE(servers[1].isIp6());
  EXPECT_EQ(servers[1].ip6Address(), Ipkit::Ip6Addr::loopback());
  EXPECT_EQ(servers[1].port(), 53535);
  EXPECT_EQ(servers[2].port(), Dnsr::NameServer::defaultPort);
  EXPECT_TRUE(servers[3].isIp6());
  EXPECT_EQ(servers[3].port(), Dnsr::NameServer::defaultPort);
  EXPECT_EQ(servers[1].str(), "[::1]:53535");
  EXPECT_EQ(servers[2].str(), "192.0.2.53:53");
  EXPECT_EQ(Dnsr::NameServer::fromText("[2001:db8::53]"), servers[3]);
  EXPECT_TRUE(Dnsr::NameServer::listOf("  ").empty());
}

TEST(NameServerTest, RejectsMalformedEntries) {
  Orb::Expect expect;
  expect.add(Orb::ExceptionId::range);
  for (const char* text :
       {"localhost", "127.0.0.1:", "127.0.0.1:0", "127.0.0.1:65536", "127.0.0.1:53x", "[::1",
        "[::1]53", "[127.0.0.1]:53", "::1:53:x", "127.0.0.1,nameserver"}) {
    EXPECT_THROW((void)Dnsr::NameServer::listOf(text), Orb::RangeException) << text;
  }
}

}  // namespace
