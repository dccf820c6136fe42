// The two address types, checked alike: text and binary forms, rejection, order and hashing.
#include <gtest/gtest.h>

#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

#include "Ipkit/Ip6Addr.h"
#include "Ipkit/IpAddr.h"
#include "Orb/Exception.h"

namespace {

using Ipkit::Ip6Addr;
using Ipkit::IpAddr;

// Each text is refused: the constructor raises the range exception naming the type and the text,
// and parse() answers false and leaves its output alone.
template <class Address>
void expectRejected(std::vector<std::string_view> texts, const std::string& typeName) {
  Orb::Expect expect;
  expect.add(Orb::ExceptionId::range);
  for (std::string_view text : texts) {
    try {
      ADD_FAILURE() << "accepted \"" << text << "\" as " << Address(text);
    } catch (const Orb::RangeException& e) {
      EXPECT_PRED_FORMAT2(testing::IsSubstring, typeName + ": ", e.what());
      EXPECT_PRED_FORMAT2(testing::IsSubstring, std::string(text.substr(0, text.find('\0'))),
                          e.what());
    }
    Address untouched = Address::loopback();
    EXPECT_FALSE(Address::parse(text, &untouched) || untouched != Address::loopback()) << text;
  }
}

// The addresses are in strictly increasing order and key a hash set by value.
template <class Address>
void expectIncreasing(const std::vector<Address>& sorted) {
  std::unordered_set<Address> set;
  for (size_t i = 0; i < sorted.size(); ++i) {
    set.insert(Address::fromBytes(sorted[i].bytes().data()));
    EXPECT_TRUE(i == 0 || (sorted[i - 1] < sorted[i] && !(sorted[i] < sorted[i - 1]))) << sorted[i];
  }
  EXPECT_EQ(set.size(), sorted.size());
}

TEST(IpAddrTest, TextAndBinaryFormsRoundTripOthersAreRejectedAndOrderIsNumeric) {
  for (const char* text : {"0.0.0.0", "127.0.0.1", "10.0.0.255", "255.255.255.255"}) {
    const IpAddr a(text);
    EXPECT_EQ(a.str(), text);
    EXPECT_EQ(IpAddr(a.inAddr()), a);
  }
  EXPECT_EQ(IpAddr("192.168.1.2").value(), 0xc0a80102u);
  expectRejected<IpAddr>({"", "256.1.1.1", "1.2.3", " 1.2.3.4", "1.2.3.4 ", "127.1", "1.2.3.4.5",
                          "01.2.3.4", "0x7f.0.0.1", "::1", "1.2.3.4/24",
                          std::string_view("1.2.3.4\0x", 9), "999999999999999999.1.1.1"},
                         "Ipkit::IpAddr");
  expectIncreasing<IpAddr>({IpAddr("9.255.255.255"), IpAddr("10.0.0.2"), IpAddr("10.0.0.10")});
}

TEST(Ip6AddrTest, TextIsCanonicalAndRoundTripsOthersAreRejectedAndOrderIsByBytes) {
  const std::pair<const char*, const char*> forms[] = {
      {"0:0:0:0:0:0:0:1", "::1"},
      {"2001:0DB8:0000::0:1", "2001:db8::1"},
      {"2001:db8::1:1:1:1:1", "2001:db8:0:1:1:1:1:1"},  // a single zero group stays
      {"2001:0:0:1:0:0:0:1", "2001:0:0:1::1"},          // the longest zero run is compressed
      {"2001:db8:0:0:1:0:0:1", "2001:db8::1:0:0:1"},    // the first of two equal ones
      {"::FFFF:7F00:1", "::ffff:127.0.0.1"},
      {"1:2:3:4:5:6:1.2.3.4", "1:2:3:4:5:6:102:304"},
      {"ffff:ffff:ffff:ffff:ffff:ffff:255.255.255.255",  // the longest text there is
       "ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff"}};
  for (const auto& [text, canonical] : forms) {
    const Ip6Addr a(text);
    EXPECT_EQ(a.str(), canonical) << text;
    EXPECT_EQ(Ip6Addr(a.in6Addr()), a);
  }
  expectRejected<Ip6Addr>({"", "fe80::1%eth0", "gggg::", "::1 ", ":::", "1::2::3",
                           "1:2:3:4:5:6:7:8:9", "1:2:3:4:5:6:7", "12345::", "::ffff:1.2.3",
                           "::ffff:01.2.3.4", "1.2.3.4", ":1::", std::string_view("::1\0", 4)},
                          "Ipkit::Ip6Addr");
  expectIncreasing<Ip6Addr>({Ip6Addr("::1"), Ip6Addr("::100"), Ip6Addr("1::")});
}

}  // namespace
