#include <gtest/gtest.h>

#include <set>
#include <sstream>
#include <string>

#include "Orb/HashMap.h"
#include "Orb/String.h"

namespace {

TEST(StringTest, HoldsAnyBytesAndSharesItsBuffer) {
  Orb::String empty;
  EXPECT_TRUE(empty.empty());
  EXPECT_STREQ(empty.charPtr(), "");

  const char bytes[] = {'a', '\0', 'b'};
  Orb::String binary(bytes, 3);
  EXPECT_EQ(binary.size(), 3u);
  EXPECT_EQ(binary.charPtr()[3], '\0');
  EXPECT_EQ(std::string(binary.begin(), binary.end()), std::string(bytes, 3));
  EXPECT_EQ(binary.iter(1) - binary.begin(), 1);
  EXPECT_EQ(binary.iter(99), binary.end());

  Orb::String copy = binary;
  EXPECT_EQ(copy.charPtr(), binary.charPtr());  // one buffer
  Orb::String part(binary.iter(2), binary.end());
  EXPECT_EQ(part, "b");
}

TEST(StringTest, ConcatenatesComparesAndPrints) {
  Orb::String a("abc"), b("abd");
  EXPECT_EQ(a + b, "abcabd");
  EXPECT_EQ(a + Orb::String(), a);
  EXPECT_TRUE(a < b);
  EXPECT_FALSE(b < a);
  EXPECT_TRUE(Orb::String("ab") < a);
  EXPECT_EQ(a, Orb::String("abc"));
  EXPECT_FALSE(a == "ab");
  Orb::String assigned;
  assigned = "xyz";
  EXPECT_EQ(assigned, "xyz");
  std::ostringstream out;
  out << a << b;
  EXPECT_EQ(out.str(), "abcabd");
}

TEST(StringTest, HashIsStableAndSpreadsNearbyStrings) {
  EXPECT_EQ(Orb::String("http://a/").hash(), Orb::String(std::string("http://a/")).hash());
  EXPECT_EQ(Orb::String().hash(), Orb::hashBytes("", 0));
  // Known MurmurHash3 x86_32 values, seed 0.
  EXPECT_EQ(Orb::hashBytes("", 0), 0u);
  EXPECT_EQ(Orb::hashBytes("hello", 5), 0x248bfa47u);
  std::set<uint32_t> hashes, buckets;
  for (int i = 0; i < 10000; ++i) {
    uint32_t h = Orb::String("http://host/item" + std::to_string(i)).hash();
    hashes.insert(h);
    buckets.insert(h & 0xff);
  }
  EXPECT_EQ(hashes.size(), 10000u);
  EXPECT_EQ(buckets.size(), 256u);  // low bits are used by hash tables
  EXPECT_NE(Orb::hashU64(1), Orb::hashU64(2));
}

TEST(StringTest, WorksAsHashMapKey) {
  Orb::HashMap<Orb::String, int> map;
  map[Orb::String("a")] = 1;
  map[Orb::String("b")] = 2;
  map[Orb::String("a")] = 3;
  EXPECT_EQ(map.size(), 2u);
  EXPECT_EQ(map.at(Orb::String("a")), 3);
  Orb::HashMap<void*, int> pointers;
  int x;
  pointers[&x] = 1;
  EXPECT_EQ(pointers.count(&x), 1u);
}

}  // namespace
