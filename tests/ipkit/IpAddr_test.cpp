#include "Ipkit/IpAddr.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include "Orb/HashMap.h"
#include "ipkit/support/AddressChecks.h"

namespace {

using Ipkit::IpAddr;

TEST(IpAddrTest, TextAndBinaryFormsRoundTrip) {
  for (const char* text : {"0.0.0.0", "127.0.0.1", "10.0.0.255", "255.255.255.255"}) {
    const IpAddr a(text);
    EXPECT_EQ(a.str(), text);
    EXPECT_EQ(IpAddr(a.inAddr()), a);
    EXPECT_EQ(IpAddr::fromBytes(a.bytes().data()), a);
  }
  in_addr system;
  ASSERT_EQ(inet_pton(AF_INET, "192.168.1.2", &system), 1);
  EXPECT_EQ(IpAddr(system).value(), 0xc0a80102u);
  EXPECT_TRUE(IpAddr("127.255.255.254").isLoopback() && !IpAddr("128.0.0.1").isLoopback());
  EXPECT_TRUE(IpAddr().isUnspecified());
}

TEST(IpAddrTest, TextThatIsNotADottedQuadIsRejected) {
  IpkitTest::expectRejected<IpAddr>(
      {"", "256.1.1.1", "1.2.3", " 1.2.3.4", "1.2.3.4 ", "1.2.3.4:80", "127.1", "1.2.3.4.5",
       "01.2.3.4", "0x7f.0.0.1", "::1", "1..2.3", "1.2.3.4/24", std::string_view("1.2.3.4\0x", 9),
       "999999999999999999.1.1.1"},
      "Ipkit::IpAddr");
}

TEST(IpAddrTest, OrdersNumericallyAndKeysHashMaps) {
  IpkitTest::expectIncreasing<IpAddr>({IpAddr("0.0.0.0"), IpAddr("9.255.255.255"),
                                       IpAddr("10.0.0.2"), IpAddr("10.0.0.10"), IpAddr("10.0.1.0"),
                                       IpAddr("128.0.0.0"), IpAddr("255.255.255.255")});
  Orb::HashMap<IpAddr, int> seen;
  for (uint32_t i = 0; i < 64; ++i) seen[IpAddr(0x7f000000u + i)] = int(i);
  seen[IpAddr("127.0.0.9")] = 90;
  EXPECT_EQ(seen.size(), 64u);
  EXPECT_EQ(seen.at(IpAddr(0x7f000009u)), 90);
}

}  // namespace
