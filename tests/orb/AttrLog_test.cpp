#include "Orb/AttrLog.h"

#include <gtest/gtest.h>

#include <bit>
#include <cstring>
#include <functional>
#include <string>
#include <tuple>
#include <vector>

#include "Orb/Enumeration.h"
#include "orb/support/OrbTest.h"

namespace {

using namespace Orb;
using Read = std::function<void(AttrLogIn&)>;

// A copy in a heap block of exactly the bytes' size, so that a read past the end is caught by
// AddressSanitizer (a std::string keeps spare capacity and a NUL after its bytes).
struct ExactBuffer {
  explicit ExactBuffer(std::string_view bytes) : bytes(bytes.begin(), bytes.end()) {}
  [[nodiscard]] AttrLogIn reader() const { return AttrLogIn(bytes.data(), bytes.size()); }
  std::vector<char> bytes;
};

// "07 01 ff" -> the three bytes.
std::string hex(std::string_view text) {
  std::string bytes;
  for (size_t i = 0; i + 1 < text.size(); i += 3)
    bytes += char(std::stoi(std::string(text.substr(i, 2)), nullptr, 16));
  return bytes;
}

std::string failureOf(std::string_view bytes, const Read& read) {
  ExactBuffer buffer(bytes);
  return OrbTest::parseFailure([&] {
    AttrLogIn in = buffer.reader();
    read(in);
  });
}

void skipAll(AttrLogIn& in) {
  while (true) in.skipValue();
}

// A value of every kind at its edges, a compound nested in a compound, and its encoding.
const std::string binary("\0\xff", 2);
const double nanWithPayload = std::bit_cast<double>(uint64_t(0x7ff8000000012345));
const char* const sampleBytes =
    "07 02 06 ff ff ff ff 0f 07 01 05 02 00 ff 01 ff ff ff ff ff ff ff ff ff 01 "
    "02 ff ff ff ff ff ff ff ff ff 01 02 ff ff ff ff 0f 03 45 23 01 00 00 00 f8 7f 04 01";

std::string writeSample() {
  AttrLogOut out;
  out.beginCompound(2);
  out.writeEnum(UINT32_MAX);
  out.beginCompound(1);
  out.writeString(binary);
  out.endCompound();
  out.endCompound();
  out.writeU64(UINT64_MAX);
  out.writeI64(INT64_MIN);
  out.writeI32(INT32_MIN);
  out.writeDouble(nanWithPayload);
  out.writeBool(true);
  return out.bytes();
}

void readSample(AttrLogIn& in) {
  EXPECT_EQ(in.beginCompound(), 2u);
  EXPECT_EQ(in.readEnum(), UINT32_MAX);
  EXPECT_EQ(in.beginCompound(), 1u);
  EXPECT_EQ(in.readString().str(), binary);
  in.endCompound();
  in.endCompound();
  EXPECT_EQ(in.readU64(), UINT64_MAX);
  EXPECT_EQ(in.readI64(), INT64_MIN);
  EXPECT_EQ(in.readI32(), INT32_MIN);
  EXPECT_EQ(std::bit_cast<uint64_t>(in.readDouble()), std::bit_cast<uint64_t>(nanWithPayload));
  EXPECT_TRUE(in.readBool());
  in.expectEnd();
}

TEST(AttrLogTest, EveryKindRoundTripsAtItsEdgesTruncationsRejected) {
  const std::string bytes = writeSample();
  EXPECT_EQ(bytes, hex(sampleBytes));
  ExactBuffer whole(bytes);
  AttrLogIn in = whole.reader();
  readSample(in);

  for (size_t length = 0; length < bytes.size(); ++length) {
    SCOPED_TRACE(length);
    const std::string_view cut = std::string_view(bytes).substr(0, length);
    EXPECT_CONTAINS(failureOf(cut, readSample), "attribute log, byte ");
    EXPECT_CONTAINS(failureOf(cut, skipAll), "attribute log, byte ");
  }
}

TEST(AttrLogTest, MalformedBytesAreRejectedWithTheirPlace) {
  const EnumDescriptor method("Test::Method", {{"GET", 1}, {"HEAD", 3}});
  const Read u8 = [](auto& in) { (void)in.readU8(); };
  const Read u64 = [](auto& in) { (void)in.readU64(); };
  const Read string = [](auto& in) { (void)in.readString(); };
  const Read compound = [](auto& in) { (void)in.beginCompound(); };
  const std::tuple<const char*, Read, const char*> cases[] = {
      {"01 05", string, "byte 0: expected string but found unsigned"},
      {"08 00", skipAll, "unknown kind tag"},
      {"04 02", skipAll, "neither 0 nor 1"},
      {"01 80 80 80 80 80 80 80 80 80 80 00", u64, "over-long varint"},
      {"01 ff ff ff ff ff ff ff ff ff 02", u64, "over-long varint"},  // 10th byte: bit 64 only
      {"01 80 02", u8, "byte 0: unsigned 256 is above 255"},
      {"02 81 80 80 80 10", [](auto& in) { (void)in.readI32(); }, "signed -2147483649 is outside"},
      {"06 80 80 80 80 10", skipAll, "above 32 bits"},
      {"06 02", [&](auto& in) { (void)in.readEnum(method); },
       "Test::Method has no enumerator numbered 2"},
      {"05 80 80 80 80 80 80 80 80 40 61", string, "4611686018427387904 bytes, but only 1 left"},
      {"05 04 61 62 63", skipAll, "string longer than the bytes left"},
      {"07 ff ff ff ff 0f 04 01", compound, "compound of 4294967295 values, but only 2 bytes left"},
      {"07 01 01 01 01 02", [&](auto& in) { compound(in), u8(in), u8(in); },
       "byte 4: read past the end of a compound of 1 values"},
      {"01 01 01 02", [&](auto& in) { u8(in), in.expectEnd(); },
       "2 bytes left after the last value"},
  };
  for (const auto& [bytes, read, message] : cases) {
    EXPECT_CONTAINS(failureOf(hex(bytes), read), message);
  }
}

TEST(AttrLogTest, DeepNestingIsSkippedFlat) {
  constexpr int depth = 100000;  // no recursion per level
  AttrLogOut deep;
  for (int i = 0; i < depth; ++i) deep.beginCompound(1);
  deep.writeBool(true);
  for (int i = 0; i < depth; ++i) deep.endCompound();
  AttrLogIn in(deep.bytes());
  in.skipValue();
  in.expectEnd();
}

}  // namespace
