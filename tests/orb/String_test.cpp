#include "Orb/String.h"

#include <gtest/gtest.h>

#include <set>
#include <sstream>
#include <string>

#include "Orb/HashMap.h"

namespace {

TEST(StringTest, HoldsAnyBytesInOneSharedBufferComparesAndPrints) {
  const char bytes[] = {'a', '\0', 'b'};
  Orb::String binary(bytes, 3), copy = binary;
  EXPECT_EQ(binary.charPtr()[3], '\0');
  EXPECT_EQ(std::string(binary.begin(), binary.end()), std::string(bytes, 3));
  EXPECT_EQ(copy.charPtr(), binary.charPtr());
  EXPECT_EQ(Orb::String(binary.iter(2), binary.iter(99)), "b");
  Orb::String a("abc"), b("abd");
  EXPECT_TRUE(a < b && Orb::String("ab") < a && !(b < a) && !(a == "ab"));
  std::ostringstream out;
  out << a + b;
  EXPECT_EQ(out.str(), "abcabd");
}

TEST(StringTest, HashIsMurmur3AndKeysHashMapsByContent) {
  EXPECT_EQ(Orb::String("hello").hash(), 0x248bfa47u);  // MurmurHash3 x86_32, seed 0
  Orb::HashMap<Orb::String, int> map{{Orb::String("a"), 1}};
  map[Orb::String(std::string("a"))] = 3;
  EXPECT_EQ(map.size(), 1u);
}

}  // namespace
