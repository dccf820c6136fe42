#include "Ipkit/Ip6Addr.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <cstring>
#include <utility>

#include "Orb/HashMap.h"
#include "ipkit/support/AddressChecks.h"

namespace {

using Ipkit::Ip6Addr;

TEST(Ip6AddrTest, TextIsCanonicalAndRoundTripsWithTheBinaryForms) {
  const std::pair<const char*, const char*> forms[] = {
      {"::", "::"},
      {"0:0:0:0:0:0:0:1", "::1"},
      {"2001:0DB8:0000::0:1", "2001:db8::1"},
      {"2001:db8::1:1:1:1:1", "2001:db8:0:1:1:1:1:1"},  // a single zero group stays
      {"2001:0:0:1:0:0:0:1", "2001:0:0:1::1"},          // the longest zero run is compressed
      {"2001:db8:0:0:1:0:0:1", "2001:db8::1:0:0:1"},    // the first of two equal ones
      {"::FFFF:7F00:1", "::ffff:127.0.0.1"},
      {"1:2:3:4:5:6:7::", "1:2:3:4:5:6:7:0"},
      {"1:2:3:4:5:6:1.2.3.4", "1:2:3:4:5:6:102:304"},
      {"ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff", "ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff"}};
  for (const auto& [text, canonical] : forms) {
    const Ip6Addr a(text);
    EXPECT_EQ(a.str(), canonical) << text;
    EXPECT_EQ(Ip6Addr(a.in6Addr()), a);
    EXPECT_EQ(Ip6Addr::fromBytes(a.bytes().data()), a);
  }
  in6_addr system;
  ASSERT_EQ(inet_pton(AF_INET6, "2001:db8::a:b", &system), 1);
  EXPECT_EQ(std::memcmp(Ip6Addr("2001:db8::a:b").bytes().data(), &system, 16), 0);
  EXPECT_TRUE(Ip6Addr("::ffff:0.0.0.0").isV4Mapped() && !Ip6Addr("1::ffff:127.0.0.1").isV4Mapped());
  EXPECT_TRUE(Ip6Addr("::1").isLoopback() && !Ip6Addr("::ffff:127.0.0.1").isLoopback());
}

TEST(Ip6AddrTest, TextThatIsNotAnAddressIsRejected) {
  IpkitTest::expectRejected<Ip6Addr>(
      {"", "[::1]", "fe80::1%eth0", "gggg::", " ::1", "::1 ", ":::", "1::2::3", "1:2:3:4:5:6:7:8:9",
       "1:2:3:4:5:6:7", "12345::", "::ffff:1.2.3", "::ffff:01.2.3.4", "1.2.3.4", ":1::", "::1/128",
       std::string_view("::1\0", 4)},
      "Ipkit::Ip6Addr");
}

TEST(Ip6AddrTest, OrdersByNetworkBytesAndKeysHashMaps) {
  IpkitTest::expectIncreasing<Ip6Addr>(
      {Ip6Addr("::"), Ip6Addr("::1"), Ip6Addr("::100"), Ip6Addr("::ffff:0.0.0.1"), Ip6Addr("1::"),
       Ip6Addr("2001:db8::1"), Ip6Addr("2001:db8:0:1::"), Ip6Addr("ffff::")});
  Orb::HashMap<Ip6Addr, int> seen;
  for (uint8_t i = 0; i < 64; ++i) seen[Ip6Addr(Ip6Addr::Bytes{0x20, 0x01, 0x0d, 0xb8, i})] = i;
  seen[Ip6Addr("2001:DB8:0900::")] = 90;
  EXPECT_EQ(seen.size(), 64u);
  EXPECT_EQ(seen.at(Ip6Addr("2001:db8:900:0::")), 90);
}

}  // namespace
