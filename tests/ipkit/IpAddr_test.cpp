#include "Ipkit/IpAddr.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <sstream>
#include <unordered_set>
#include <vector>

#include "Orb/Exception.h"
#include "Orb/HashMap.h"

namespace {

using Ipkit::IpAddr;

TEST(IpAddrTest, DefaultIsTheUnspecifiedAddress) {
  IpAddr a;
  EXPECT_TRUE(a.isUnspecified());
  EXPECT_EQ(a.value(), 0u);
  EXPECT_EQ(a.str(), "0.0.0.0");
  EXPECT_EQ(a, IpAddr("0.0.0.0"));
  EXPECT_FALSE(IpAddr("0.0.0.1").isUnspecified());
}

TEST(IpAddrTest, TextRoundTripsThroughTheDottedQuad) {
  for (const char* text : {"0.0.0.0", "127.0.0.1", "10.0.0.255", "192.0.2.1", "1.2.3.4",
                           "255.255.255.255", "100.64.0.0", "224.0.0.251"}) {
    IpAddr a(text);
    EXPECT_EQ(a.str(), text);
    EXPECT_EQ(IpAddr(a.str()), a) << text;
    EXPECT_EQ(IpAddr(std::string_view(text)), a) << text;
    std::ostringstream out;
    out << a;
    EXPECT_EQ(out.str(), text);
  }
  EXPECT_EQ(IpAddr("192.0.2.1").value(), 0xc0000201u);
  EXPECT_EQ(IpAddr("255.255.255.255").value(), 0xffffffffu);
}

TEST(IpAddrTest, TextThatIsNotADottedQuadRaisesTheRangeException) {
  Orb::Expect expect;
  expect.add(Orb::ExceptionId::range);
  const std::vector<std::string_view> bad = {"",
                                             "256.1.1.1",
                                             "1.2.3",
                                             " 1.2.3.4",
                                             "1.2.3.4 ",
                                             "1.2.3.4:80",
                                             "127.1",
                                             "1.2.3.4.5",
                                             "01.2.3.4",
                                             "1.2.3.-4",
                                             "0x7f.0.0.1",
                                             "a.b.c.d",
                                             "[1.2.3.4]",
                                             "::1",
                                             "1..2.3",
                                             "1.2.3.4.",
                                             "1.2.3.1000",
                                             "1.2.3.4/24",
                                             std::string_view("1.2.3.4\0x", 9),
                                             "999999999999999999.1.1.1"};
  for (std::string_view text : bad) {
    try {
      IpAddr a(text);
      ADD_FAILURE() << "accepted \"" << text << "\" as " << a;
    } catch (const Orb::RangeException& e) {
      EXPECT_NE(std::string(e.what()).find("Ipkit::IpAddr"), std::string::npos) << e.what();
      EXPECT_NE(std::string(e.what()).find(std::string(text.substr(0, text.find('\0')))),
                std::string::npos)
          << e.what();
    }
    IpAddr untouched(0x01020304u);
    EXPECT_FALSE(IpAddr::parse(text, &untouched)) << text;
    EXPECT_EQ(untouched, IpAddr(0x01020304u));
  }
  EXPECT_THROW(IpAddr(static_cast<const char*>(nullptr)), Orb::RangeException);
}

TEST(IpAddrTest, ParseReportsWithoutRaising) {
  IpAddr a;
  EXPECT_TRUE(IpAddr::parse("10.1.2.3", &a));
  EXPECT_EQ(a, IpAddr(0x0a010203u));
  EXPECT_TRUE(IpAddr::parse("10.1.2.3", nullptr));
  EXPECT_FALSE(IpAddr::parse("10.1.2", nullptr));
}

TEST(IpAddrTest, BinaryFormsRoundTrip) {
  IpAddr a(0xc0a80102u);
  EXPECT_EQ(a.str(), "192.168.1.2");
  EXPECT_EQ(a.bytes(), (std::array<uint8_t, 4>{192, 168, 1, 2}));
  EXPECT_EQ(IpAddr(a.bytes()), a);
  EXPECT_EQ(IpAddr::fromBytes(a.bytes().data()), a);

  in_addr system;
  ASSERT_EQ(inet_pton(AF_INET, "192.168.1.2", &system), 1);
  EXPECT_EQ(IpAddr(system), a);
  EXPECT_EQ(a.inAddr().s_addr, system.s_addr);
  EXPECT_EQ(IpAddr::fromBytes(&system), a);
  char text[INET_ADDRSTRLEN];
  in_addr back = a.inAddr();
  ASSERT_NE(inet_ntop(AF_INET, &back, text, sizeof(text)), nullptr);
  EXPECT_EQ(a.str(), text);
}

TEST(IpAddrTest, LoopbackIsAllOf127Slash8) {
  EXPECT_TRUE(IpAddr::loopback().isLoopback());
  EXPECT_EQ(IpAddr::loopback().str(), "127.0.0.1");
  EXPECT_TRUE(IpAddr("127.255.255.254").isLoopback());
  EXPECT_TRUE(IpAddr("127.0.0.0").isLoopback());
  EXPECT_FALSE(IpAddr("126.255.255.255").isLoopback());
  EXPECT_FALSE(IpAddr("128.0.0.1").isLoopback());
  EXPECT_FALSE(IpAddr().isLoopback());
}

TEST(IpAddrTest, OrdersNumericallyByNetworkOrder) {
  std::vector<IpAddr> sorted = {
      IpAddr("0.0.0.0"),   IpAddr("1.0.0.0"),        IpAddr("9.255.255.255"), IpAddr("10.0.0.0"),
      IpAddr("10.0.0.2"),  IpAddr("10.0.0.10"),      IpAddr("10.0.1.0"),      IpAddr("127.0.0.1"),
      IpAddr("128.0.0.0"), IpAddr("255.255.255.255")};
  for (size_t i = 0; i + 1 < sorted.size(); ++i) {
    EXPECT_LT(sorted[i], sorted[i + 1]) << sorted[i] << " vs " << sorted[i + 1];
    EXPECT_TRUE((sorted[i] <=> sorted[i + 1]) < 0);
    EXPECT_FALSE(sorted[i + 1] < sorted[i]);
    EXPECT_NE(sorted[i], sorted[i + 1]);
  }
  std::vector<IpAddr> shuffled(sorted.rbegin(), sorted.rend());
  std::sort(shuffled.begin(), shuffled.end());
  EXPECT_EQ(shuffled, sorted);
  EXPECT_EQ(IpAddr("10.0.0.2") <=> IpAddr(0x0a000002u), std::strong_ordering::equal);
  EXPECT_FALSE(IpAddr("10.0.0.2") < IpAddr("10.0.0.2"));
}

TEST(IpAddrTest, HashesAgreeForEqualValuesAndSpreadOverNearOnes) {
  EXPECT_EQ(IpAddr("10.0.0.7").hash(), IpAddr(0x0a000007u).hash());
  EXPECT_EQ(std::hash<IpAddr>()(IpAddr("10.0.0.7")), IpAddr("10.0.0.7").hash());
  std::unordered_set<uint32_t> hashes;
  std::unordered_set<uint32_t> lowBytes;
  for (uint32_t i = 0; i < 256; ++i) {
    uint32_t h = IpAddr(0x0a000000u + i).hash();
    hashes.insert(h);
    lowBytes.insert(h & 0xff);
  }
  EXPECT_EQ(hashes.size(), 256u);
  // A hash that only echoed its input would fill the low byte exactly; a mixed one leaves gaps.
  EXPECT_LT(lowBytes.size(), 256u);
  EXPECT_GT(lowBytes.size(), 128u);
}

TEST(IpAddrTest, ServesAsAHashMapKey) {
  Orb::HashMap<IpAddr, int> seen;
  for (int i = 0; i < 64; ++i) seen[IpAddr(0x7f000000u + uint32_t(i))] = i;
  EXPECT_EQ(seen.size(), 64u);
  EXPECT_EQ(seen.at(IpAddr("127.0.0.9")), 9);
  seen[IpAddr("127.0.0.9")] = 90;
  EXPECT_EQ(seen.size(), 64u);
  EXPECT_EQ(seen.at(IpAddr("127.0.0.9")), 90);
  EXPECT_EQ(seen.erase(IpAddr("127.0.0.63")), 1u);
  EXPECT_EQ(seen.count(IpAddr("127.0.0.63")), 0u);
  EXPECT_EQ(seen.count(IpAddr("127.0.0.64")), 0u);
  std::unordered_set<IpAddr> set = {IpAddr("1.1.1.1"), IpAddr(0x01010101u), IpAddr("1.1.1.2")};
  EXPECT_EQ(set.size(), 2u);
}

TEST(IpAddrTest, RegistersItsTypeName) {
  const Orb::TypeNode* node = Orb::typeNode("Ipkit::IpAddr");
  ASSERT_NE(node, nullptr);
  EXPECT_EQ(node, IpAddr::typeNode());
  EXPECT_EQ(node->name(), "Ipkit::IpAddr");
  EXPECT_EQ(node->kind(), Orb::TypeNode::Kind::value);
}

}  // namespace
