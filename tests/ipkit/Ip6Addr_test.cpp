#include "Ipkit/Ip6Addr.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <sstream>
#include <unordered_set>
#include <utility>
#include <vector>

#include "Orb/Exception.h"
#include "Orb/HashMap.h"

namespace {

using Ipkit::Ip6Addr;

Ip6Addr withLastWord(uint16_t word) {
  Ip6Addr::Bytes b{0x20, 0x01, 0x0d, 0xb8};
  b[14] = uint8_t(word >> 8);
  b[15] = uint8_t(word);
  return Ip6Addr(b);
}

TEST(Ip6AddrTest, DefaultIsTheUnspecifiedAddress) {
  Ip6Addr a;
  EXPECT_TRUE(a.isUnspecified());
  EXPECT_FALSE(a.isLoopback());
  EXPECT_EQ(a.str(), "::");
  EXPECT_EQ(a, Ip6Addr("0:0:0:0:0:0:0:0"));
  EXPECT_EQ(a.bytes(), Ip6Addr::Bytes{});
}

TEST(Ip6AddrTest, CanonicalTextRoundTrips) {
  for (const char* text :
       {"::", "::1", "::ffff:127.0.0.1", "::ffff:255.255.255.255", "2001:db8::1", "fe80::1",
        "1::", "2001:db8:0:1:1:1:1:1", "2001:db8::1:0:0:1", "1:2:3:4:5:6:7:8", "ff02::fb",
        "ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff", "2001:db8:a::123"}) {
    Ip6Addr a(text);
    EXPECT_EQ(a.str(), text);
    EXPECT_EQ(Ip6Addr(a.str()), a) << text;
    std::ostringstream out;
    out << a;
    EXPECT_EQ(out.str(), text);
  }
}

TEST(Ip6AddrTest, OtherFormsAreCanonicalised) {
  const std::vector<std::pair<const char*, const char*>> forms = {
      {"0:0:0:0:0:0:0:1", "::1"},
      {"0000:0000:0000:0000:0000:0000:0000:0000", "::"},
      {"2001:DB8::1", "2001:db8::1"},
      {"2001:0db8:0000:0000:0000:0000:0000:0001", "2001:db8::1"},
      {"2001:db8:0:0:0:0:0:1", "2001:db8::1"},
      {"2001:db8::0:1", "2001:db8::1"},
      // A single zero group stays written out.
      {"2001:db8::1:1:1:1:1", "2001:db8:0:1:1:1:1:1"},
      // The longest zero run is compressed, the first of two equal ones.
      {"2001:0:0:1:0:0:0:1", "2001:0:0:1::1"},
      {"2001:db8:0:0:1:0:0:1", "2001:db8::1:0:0:1"},
      {"::FFFF:7F00:1", "::ffff:127.0.0.1"},
      {"0:0:0:0:0:ffff:192.0.2.1", "::ffff:192.0.2.1"},
      {"1:2:3:4:5:6:7::", "1:2:3:4:5:6:7:0"},
      {"::2:3:4:5:6:7:8", "0:2:3:4:5:6:7:8"},
      {"1:2:3:4:5:6:1.2.3.4", "1:2:3:4:5:6:102:304"},
  };
  for (const auto& [text, canonical] : forms) {
    Ip6Addr a(text);
    EXPECT_EQ(a.str(), canonical) << text;
    EXPECT_EQ(a, Ip6Addr(canonical)) << text;
  }
}

TEST(Ip6AddrTest, TextThatIsNotAnAddressRaisesTheRangeException) {
  Orb::Expect expect;
  expect.add(Orb::ExceptionId::range);
  const std::vector<std::string_view> bad = {"",
                                             "[::1]",
                                             "::1%lo",
                                             "fe80::1%eth0",
                                             "gggg::",
                                             " ::1",
                                             "::1 ",
                                             "[::1]:80",
                                             ":::",
                                             "1::2::3",
                                             "1:2:3:4:5:6:7:8:9",
                                             "1:2:3:4:5:6:7",
                                             "12345::",
                                             "::ffff:1.2.3",
                                             "::ffff:01.2.3.4",
                                             "1.2.3.4",
                                             ":1::",
                                             "::1/128",
                                             std::string_view("::1\0", 4),
                                             "0000:0000:0000:0000:0000:0000:0000:0000:0000:0000"};
  for (std::string_view text : bad) {
    try {
      Ip6Addr a(text);
      ADD_FAILURE() << "accepted \"" << text << "\" as " << a;
    } catch (const Orb::RangeException& e) {
      EXPECT_NE(std::string(e.what()).find("Ipkit::Ip6Addr"), std::string::npos) << e.what();
      EXPECT_NE(std::string(e.what()).find(std::string(text.substr(0, text.find('\0')))),
                std::string::npos)
          << e.what();
    }
    Ip6Addr untouched = Ip6Addr::loopback();
    EXPECT_FALSE(Ip6Addr::parse(text, &untouched)) << text;
    EXPECT_EQ(untouched, Ip6Addr::loopback());
  }
  EXPECT_THROW(Ip6Addr(static_cast<const char*>(nullptr)), Orb::RangeException);
}

TEST(Ip6AddrTest, ParseReportsWithoutRaising) {
  Ip6Addr a;
  EXPECT_TRUE(Ip6Addr::parse("::1", &a));
  EXPECT_TRUE(a.isLoopback());
  EXPECT_TRUE(Ip6Addr::parse("2001:db8::1", nullptr));
  EXPECT_FALSE(Ip6Addr::parse("2001:db8::1::", nullptr));
}

TEST(Ip6AddrTest, BinaryFormsRoundTrip) {
  Ip6Addr a("2001:db8::a:b");
  const Ip6Addr::Bytes expected = {0x20, 0x01, 0x0d, 0xb8, 0, 0,    0, 0,
                                   0,    0,    0,    0,    0, 0x0a, 0, 0x0b};
  EXPECT_EQ(a.bytes(), expected);
  EXPECT_EQ(Ip6Addr(expected), a);
  EXPECT_EQ(Ip6Addr::fromBytes(expected.data()), a);

  in6_addr system;
  ASSERT_EQ(inet_pton(AF_INET6, "2001:db8::a:b", &system), 1);
  EXPECT_EQ(Ip6Addr(system), a);
  const in6_addr back = a.in6Addr();
  EXPECT_EQ(std::memcmp(&back, &system, sizeof(system)), 0);
  EXPECT_EQ(Ip6Addr(back), a);
  EXPECT_EQ(Ip6Addr(in6addr_loopback), Ip6Addr::loopback());
  EXPECT_EQ(Ip6Addr(in6addr_any), Ip6Addr());
}

TEST(Ip6AddrTest, ClassifiesLoopbackUnspecifiedAndMapped) {
  EXPECT_TRUE(Ip6Addr("::1").isLoopback());
  EXPECT_EQ(Ip6Addr::loopback().str(), "::1");
  EXPECT_FALSE(Ip6Addr("::2").isLoopback());
  EXPECT_FALSE(Ip6Addr("1::1").isLoopback());
  EXPECT_FALSE(Ip6Addr("::ffff:127.0.0.1").isLoopback());
  EXPECT_FALSE(Ip6Addr("::1").isUnspecified());
  EXPECT_TRUE(Ip6Addr("::ffff:127.0.0.1").isV4Mapped());
  EXPECT_TRUE(Ip6Addr("::ffff:0.0.0.0").isV4Mapped());
  EXPECT_FALSE(Ip6Addr("::fffe:127.0.0.1").isV4Mapped());
  EXPECT_FALSE(Ip6Addr("1::ffff:127.0.0.1").isV4Mapped());
  EXPECT_FALSE(Ip6Addr("::1").isV4Mapped());
}

TEST(Ip6AddrTest, OrdersByNetworkOrderBytes) {
  std::vector<Ip6Addr> sorted = {Ip6Addr("::"),
                                 Ip6Addr("::1"),
                                 Ip6Addr("::2"),
                                 Ip6Addr("::100"),
                                 Ip6Addr("::ffff:0.0.0.1"),
                                 Ip6Addr("1::"),
                                 Ip6Addr("2001:db8::1"),
                                 Ip6Addr("2001:db8::2"),
                                 Ip6Addr("2001:db8:0:1::"),
                                 Ip6Addr("fe80::1"),
                                 Ip6Addr("ffff::")};
  for (size_t i = 0; i + 1 < sorted.size(); ++i) {
    EXPECT_LT(sorted[i], sorted[i + 1]) << sorted[i] << " vs " << sorted[i + 1];
    EXPECT_TRUE((sorted[i] <=> sorted[i + 1]) < 0);
    EXPECT_FALSE(sorted[i + 1] < sorted[i]);
    EXPECT_NE(sorted[i], sorted[i + 1]);
  }
  std::vector<Ip6Addr> shuffled(sorted.rbegin(), sorted.rend());
  std::sort(shuffled.begin(), shuffled.end());
  EXPECT_EQ(shuffled, sorted);
  EXPECT_EQ(Ip6Addr("2001:DB8::1") <=> Ip6Addr("2001:db8:0::1"), std::strong_ordering::equal);
}

TEST(Ip6AddrTest, HashesAgreeForEqualValuesAndSpreadOverNearOnes) {
  EXPECT_EQ(Ip6Addr("2001:DB8::7").hash(), Ip6Addr("2001:db8:0:0::7").hash());
  EXPECT_EQ(std::hash<Ip6Addr>()(Ip6Addr("::1")), Ip6Addr::loopback().hash());
  std::unordered_set<uint32_t> hashes;
  for (uint32_t i = 0; i < 4096; ++i) hashes.insert(withLastWord(uint16_t(i)).hash());
  EXPECT_EQ(hashes.size(), 4096u);
  // Addresses differing only in the first byte spread too.
  hashes.clear();
  for (uint32_t i = 0; i < 256; ++i) {
    Ip6Addr::Bytes b{};
    b[0] = uint8_t(i);
    hashes.insert(Ip6Addr(b).hash());
  }
  EXPECT_EQ(hashes.size(), 256u);
}

TEST(Ip6AddrTest, ServesAsAHashMapKey) {
  Orb::HashMap<Ip6Addr, int> seen;
  for (int i = 0; i < 64; ++i) seen[withLastWord(uint16_t(i))] = i;
  EXPECT_EQ(seen.size(), 64u);
  EXPECT_EQ(seen.at(Ip6Addr("2001:db8::9")), 9);
  seen[Ip6Addr("2001:DB8:0::9")] = 90;
  EXPECT_EQ(seen.size(), 64u);
  EXPECT_EQ(seen.at(Ip6Addr("2001:db8::9")), 90);
  EXPECT_EQ(seen.erase(Ip6Addr("2001:db8::3f")), 1u);
  EXPECT_EQ(seen.count(Ip6Addr("2001:db8::3f")), 0u);
  EXPECT_EQ(seen.count(Ip6Addr("2001:db8::40")), 0u);
  std::unordered_set<Ip6Addr> set = {Ip6Addr("::1"), Ip6Addr::loopback(), Ip6Addr("::")};
  EXPECT_EQ(set.size(), 2u);
}

TEST(Ip6AddrTest, RegistersItsTypeName) {
  const Orb::TypeNode* node = Orb::typeNode("Ipkit::Ip6Addr");
  ASSERT_NE(node, nullptr);
  EXPECT_EQ(node, Ip6Addr::typeNode());
  EXPECT_EQ(node->name(), "Ipkit::Ip6Addr");
  EXPECT_EQ(node->kind(), Orb::TypeNode::Kind::value);
}

}  // namespace
