#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <cstring>
#include <limits>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "Orb/AttrLog.h"
#include "Orb/Enumeration.h"
#include "Orb/Exception.h"

namespace {

#define EXPECT_CONTAINS(haystack, needle) \
  EXPECT_PRED_FORMAT2(testing::IsSubstring, needle, haystack)

// Runs `read` and returns the parse exception's message; a failure when nothing was raised.
template <class F>
std::string parseFailure(F&& read) {
  Orb::Expect expect;
  expect.add(Orb::ExceptionId::parse);
  try {
    read();
  } catch (const Orb::ParseException& e) {
    return e.what();
  }
  ADD_FAILURE() << "no parse exception";
  return {};
}

// A copy in a heap block of exactly the bytes' size, so that a read past the end is caught by
// AddressSanitizer (a std::string keeps spare capacity and a NUL after its bytes).
class ExactBuffer {
 public:
  explicit ExactBuffer(std::string_view bytes)
      : data_(new char[bytes.size() ? bytes.size() : 1]), size_(bytes.size()) {
    std::memcpy(data_.get(), bytes.data(), bytes.size());
  }
  [[nodiscard]] Orb::AttrLogIn reader() const { return Orb::AttrLogIn(data_.get(), size_); }

 private:
  std::unique_ptr<char[]> data_;
  size_t size_;
};

std::string bytesOf(std::initializer_list<int> values) {
  std::string bytes;
  for (int v : values) bytes += char(v);
  return bytes;
}

uint64_t bitsOf(double value) {
  return std::bit_cast<uint64_t>(value);
}

const std::string binary("\0a\xff\x80\0\x7f\n'\\", 9);

// A request-like value: a key compound, a header collection of pairs, then plain attributes.
std::string writeRequest() {
  Orb::AttrLogOut out;
  out.beginCompound(2);  // key
  out.writeEnum(1);
  out.writeString("http://example/a");
  out.endCompound();
  out.beginCompound(2);  // headers
  for (const char* name : {"Accept", "X-Binary"}) {
    out.beginCompound(2);
    out.writeString(name);
    out.writeString(binary);
    out.endCompound();
  }
  out.endCompound();
  out.writeU16(443);
  out.writeI64(-5);
  out.writeDouble(30.5);
  out.writeBool(true);
  return out.bytes();
}

void readRequest(Orb::AttrLogIn& in) {
  EXPECT_EQ(in.beginCompound(), 2u);
  EXPECT_EQ(in.readEnum(), 1u);
  EXPECT_EQ(in.readString(), "http://example/a");
  in.endCompound();
  uint32_t headers = in.beginCompound();
  EXPECT_EQ(headers, 2u);
  std::vector<std::pair<Orb::String, Orb::String>> pairs;
  for (uint32_t i = 0; i < headers; ++i) {
    EXPECT_EQ(in.beginCompound(), 2u);
    Orb::String name = in.readString();
    Orb::String value = in.readString();
    pairs.emplace_back(name, value);
    in.endCompound();
  }
  in.endCompound();
  EXPECT_EQ(in.readU16(), 443u);
  EXPECT_EQ(in.readI64(), -5);
  EXPECT_EQ(in.readDouble(), 30.5);
  EXPECT_TRUE(in.readBool());
  in.expectEnd();
  ASSERT_EQ(pairs.size(), 2u);
  EXPECT_EQ(pairs[0].first, "Accept");
  EXPECT_EQ(pairs[1].first, "X-Binary");
  EXPECT_EQ(pairs[1].second.str(), binary);
}

TEST(AttrLogTest, EveryKindRoundTripsAtItsEdges) {
  const double nanWithPayload = std::bit_cast<double>(uint64_t(0x7ff8000000012345));
  std::string all;
  for (int b = 0; b < 256; ++b) all += char(b);

  Orb::AttrLogOut out;
  out.writeU8(0);
  out.writeU8(UINT8_MAX);
  out.writeU16(UINT16_MAX);
  out.writeU32(UINT32_MAX);
  out.writeU64(0);
  out.writeU64(UINT64_MAX);
  out.writeI32(INT32_MIN);
  out.writeI32(INT32_MAX);
  out.writeI32(-1);
  out.writeI64(INT64_MIN);
  out.writeI64(INT64_MAX);
  out.writeI64(0);
  out.writeDouble(-0.0);
  out.writeDouble(nanWithPayload);
  out.writeDouble(-std::numeric_limits<double>::infinity());
  out.writeDouble(std::numeric_limits<double>::denorm_min());
  out.writeDouble(std::numeric_limits<double>::lowest());
  out.writeBool(false);
  out.writeBool(true);
  out.writeString("");
  out.writeString(binary);
  out.writeString(Orb::String(all));
  out.writeEnum(0);
  out.writeEnum(UINT32_MAX);

  ExactBuffer buffer(out.bytes());
  Orb::AttrLogIn in = buffer.reader();
  EXPECT_EQ(in.readU8(), 0u);
  EXPECT_EQ(in.readU8(), UINT8_MAX);
  EXPECT_EQ(in.readU16(), UINT16_MAX);
  EXPECT_EQ(in.readU32(), UINT32_MAX);
  EXPECT_EQ(in.readU64(), 0u);
  EXPECT_EQ(in.readU64(), UINT64_MAX);
  EXPECT_EQ(in.readI32(), INT32_MIN);
  EXPECT_EQ(in.readI32(), INT32_MAX);
  EXPECT_EQ(in.readI32(), -1);
  EXPECT_EQ(in.readI64(), INT64_MIN);
  EXPECT_EQ(in.readI64(), INT64_MAX);
  EXPECT_EQ(in.readI64(), 0);
  EXPECT_EQ(bitsOf(in.readDouble()), bitsOf(-0.0));
  EXPECT_EQ(bitsOf(in.readDouble()), bitsOf(nanWithPayload));
  EXPECT_EQ(in.readDouble(), -std::numeric_limits<double>::infinity());
  EXPECT_EQ(in.readDouble(), std::numeric_limits<double>::denorm_min());
  EXPECT_EQ(in.readDouble(), std::numeric_limits<double>::lowest());
  EXPECT_FALSE(in.readBool());
  EXPECT_TRUE(in.readBool());
  EXPECT_EQ(in.readString(), "");
  EXPECT_EQ(in.readString().str(), binary);
  EXPECT_EQ(in.readString().str(), all);
  EXPECT_EQ(in.readEnum(), 0u);
  EXPECT_FALSE(in.atEnd());
  EXPECT_EQ(in.readEnum(), UINT32_MAX);
  EXPECT_TRUE(in.atEnd());
  in.expectEnd();
}

TEST(AttrLogTest, EncodingFollowsTheTagTable) {
  auto encoded = [](auto write) {
    Orb::AttrLogOut out;
    write(out);
    return out.bytes();
  };
  EXPECT_EQ(encoded([](auto& o) { o.writeU8(0); }), bytesOf({0x01, 0x00}));
  EXPECT_EQ(encoded([](auto& o) { o.writeU32(300); }), bytesOf({0x01, 0xac, 0x02}));
  EXPECT_EQ(encoded([](auto& o) { o.writeU64(UINT64_MAX); }).size(), 11u);
  EXPECT_EQ(encoded([](auto& o) { o.writeI32(-1); }), bytesOf({0x02, 0x01}));
  EXPECT_EQ(encoded([](auto& o) { o.writeI64(1); }), bytesOf({0x02, 0x02}));
  EXPECT_EQ(encoded([](auto& o) { o.writeDouble(1.0); }),
            bytesOf({0x03, 0, 0, 0, 0, 0, 0, 0xf0, 0x3f}));
  EXPECT_EQ(encoded([](auto& o) { o.writeBool(true); }), bytesOf({0x04, 0x01}));
  EXPECT_EQ(encoded([](auto& o) { o.writeString("ab"); }), bytesOf({0x05, 0x02, 'a', 'b'}));
  EXPECT_EQ(encoded([](auto& o) { o.writeEnum(3); }), bytesOf({0x06, 0x03}));
  EXPECT_EQ(encoded([](auto& o) {
              o.beginCompound(1);
              o.writeBool(false);
              o.endCompound();
            }),
            bytesOf({0x07, 0x01, 0x04, 0x00}));
}

TEST(AttrLogTest, NestedCompoundsRoundTrip) {
  std::string bytes = writeRequest();
  ExactBuffer buffer(bytes);
  Orb::AttrLogIn in = buffer.reader();
  readRequest(in);

  Orb::AttrLogOut out;
  out.beginCompound(3);
  out.beginCompound(0);
  out.endCompound();
  out.beginCompound(1);
  out.beginCompound(1);
  out.writeString("deep");
  out.endCompound();
  out.endCompound();
  out.writeU8(7);
  out.endCompound();
  Orb::AttrLogIn nested(out.bytes());
  EXPECT_EQ(nested.beginCompound(), 3u);
  EXPECT_EQ(nested.valuesLeft(), 3u);
  EXPECT_EQ(nested.beginCompound(), 0u);
  nested.endCompound();
  EXPECT_EQ(nested.valuesLeft(), 2u);
  EXPECT_EQ(nested.nextKind(), Orb::AttrKind::compound);
  EXPECT_EQ(nested.beginCompound(), 1u);
  EXPECT_EQ(nested.beginCompound(), 1u);
  EXPECT_EQ(nested.readString(), "deep");
  nested.endCompound();
  nested.endCompound();
  EXPECT_EQ(nested.readU8(), 7u);
  EXPECT_EQ(nested.valuesLeft(), 0u);
  nested.endCompound();
  nested.expectEnd();
}

TEST(AttrLogTest, EndCompoundSkipsValuesNotRead) {
  Orb::AttrLogOut out;
  out.beginCompound(7);
  out.writeU8(1);
  out.writeI32(-7);
  out.writeDouble(2.0);
  out.writeBool(false);
  out.writeString(binary);
  out.writeEnum(9);
  out.beginCompound(2);
  out.beginCompound(1);
  out.writeU64(UINT64_MAX);
  out.endCompound();
  out.writeString("x");
  out.endCompound();
  out.endCompound();
  out.writeString("after");

  ExactBuffer buffer(out.bytes());
  Orb::AttrLogIn in = buffer.reader();
  EXPECT_EQ(in.beginCompound(), 7u);
  EXPECT_EQ(in.readU8(), 1u);
  in.endCompound();  // an older reader: knows the first attribute only
  EXPECT_EQ(in.readString(), "after");
  in.expectEnd();

  Orb::AttrLogIn skipping = buffer.reader();
  skipping.skipValue();
  EXPECT_EQ(skipping.readString(), "after");
  EXPECT_TRUE(skipping.atEnd());
}

TEST(AttrLogTest, DeepNestingIsSkippedWithoutRecursion) {
  constexpr int depth = 100000;
  Orb::AttrLogOut out;
  for (int i = 0; i < depth; ++i) out.beginCompound(1);
  out.writeBool(true);
  for (int i = 0; i < depth; ++i) out.endCompound();
  Orb::AttrLogIn in(out.bytes());
  in.skipValue();
  in.expectEnd();
}

TEST(AttrLogTest, EveryTruncationRaisesParseException) {
  std::string bytes = writeRequest();
  for (size_t length = 0; length < bytes.size(); ++length) {
    SCOPED_TRACE(length);
    ExactBuffer buffer(std::string_view(bytes).substr(0, length));
    EXPECT_CONTAINS(parseFailure([&] {
                      Orb::AttrLogIn in = buffer.reader();
                      readRequest(in);
                    }),
                    "attribute log, byte ");
    // Skipping the request's six values meets the truncation too.
    EXPECT_CONTAINS(parseFailure([&] {
                      Orb::AttrLogIn in = buffer.reader();
                      for (int i = 0; i < 6; ++i) in.skipValue();
                    }),
                    "attribute log, byte ");
  }
}

TEST(AttrLogTest, WrongKindIsRejected) {
  Orb::AttrLogOut out;
  out.writeU32(5);
  out.writeI32(5);
  out.writeBool(true);
  out.writeEnum(2);
  const std::string bytes = out.bytes();

  EXPECT_CONTAINS(parseFailure([&] { (void)Orb::AttrLogIn(bytes).readString(); }),
                  "attribute log, byte 0: expected string but found unsigned");
  EXPECT_CONTAINS(parseFailure([&] {
                    Orb::AttrLogIn in(bytes);
                    (void)in.readU32();
                    (void)in.readU32();
                  }),
                  "byte 2: expected unsigned but found signed");
  EXPECT_CONTAINS(parseFailure([&] {
                    Orb::AttrLogIn in(bytes);
                    in.skipValue();
                    in.skipValue();
                    (void)in.readEnum();
                  }),
                  "expected enumeration but found bool");
  EXPECT_CONTAINS(parseFailure([&] {
                    Orb::AttrLogIn in(bytes);
                    for (int i = 0; i < 3; ++i) in.skipValue();
                    (void)in.beginCompound();
                  }),
                  "expected compound but found enumeration");

  for (int tag : {0x00, 0x08, 0xff}) {
    std::string unknown = bytesOf({tag, 0x00});
    EXPECT_CONTAINS(parseFailure([&] { (void)Orb::AttrLogIn(unknown).readU8(); }),
                    "unknown kind tag");
    EXPECT_CONTAINS(parseFailure([&] { Orb::AttrLogIn(unknown).skipValue(); }), "unknown kind tag");
    EXPECT_CONTAINS(parseFailure([&] { (void)Orb::AttrLogIn(unknown).nextKind(); }),
                    "unknown kind tag");
  }
  std::string badBool = bytesOf({0x04, 0x02});
  EXPECT_CONTAINS(parseFailure([&] { (void)Orb::AttrLogIn(badBool).readBool(); }),
                  "neither 0 nor 1");
  EXPECT_CONTAINS(parseFailure([&] { Orb::AttrLogIn(badBool).skipValue(); }), "neither 0 nor 1");
}

TEST(AttrLogTest, OverLongVarintsAndValuesBeyondTheWidthAreRejected) {
  auto readU64 = [](std::string bytes) {
    return parseFailure([&] { (void)ExactBuffer(bytes).reader().readU64(); });
  };
  std::string eleven = bytesOf({0x01});
  for (int i = 0; i < 10; ++i) eleven += char(0x80);
  eleven += char(0x00);
  EXPECT_CONTAINS(readU64(eleven), "over-long varint");
  // The tenth byte may only hold the 64th bit.
  std::string tenth = bytesOf({0x01});
  for (int i = 0; i < 9; ++i) tenth += char(0xff);
  EXPECT_EQ(ExactBuffer(tenth + char(0x01)).reader().readU64(), UINT64_MAX);
  EXPECT_CONTAINS(readU64(tenth + char(0x02)), "over-long varint");
  // Redundant zero groups are not canonical.
  EXPECT_CONTAINS(readU64(bytesOf({0x01, 0x80, 0x00})), "over-long varint");
  EXPECT_CONTAINS(readU64(bytesOf({0x01, 0x80})), "truncated varint");

  Orb::AttrLogOut out;
  out.writeU64(uint64_t(UINT8_MAX) + 1);
  out.writeU64(uint64_t(UINT16_MAX) + 1);
  out.writeU64(uint64_t(UINT32_MAX) + 1);
  out.writeI64(int64_t(INT32_MAX) + 1);
  out.writeI64(int64_t(INT32_MIN) - 1);
  // A fresh reader past the first `skip` values: a reader is not used after a parse exception.
  auto readerAfter = [&](int skip) {
    Orb::AttrLogIn in(out.bytes());
    for (int i = 0; i < skip; ++i) in.skipValue();
    return in;
  };
  EXPECT_CONTAINS(parseFailure([&] { (void)readerAfter(0).readU8(); }),
                  "byte 0: unsigned 256 is above 255");
  EXPECT_CONTAINS(parseFailure([&] { (void)readerAfter(1).readU16(); }),
                  "byte 3: unsigned 65536 is above 65535");
  EXPECT_CONTAINS(parseFailure([&] { (void)readerAfter(2).readU32(); }),
                  "byte 7: unsigned 4294967296 is above 4294967295");
  EXPECT_EQ(readerAfter(2).readU64(), uint64_t(UINT32_MAX) + 1);
  EXPECT_CONTAINS(parseFailure([&] { (void)readerAfter(3).readI32(); }),
                  "signed 2147483648 is outside -2147483648 to 2147483647");
  EXPECT_CONTAINS(parseFailure([&] { (void)readerAfter(4).readI32(); }),
                  "signed -2147483649 is outside");
  EXPECT_EQ(readerAfter(4).readI64(), int64_t(INT32_MIN) - 1);

  std::string bigEnum = bytesOf({0x06, 0x80, 0x80, 0x80, 0x80, 0x10});  // 2^32
  EXPECT_CONTAINS(parseFailure([&] { (void)ExactBuffer(bigEnum).reader().readEnum(); }),
                  "above 32 bits");
  EXPECT_CONTAINS(parseFailure([&] { ExactBuffer(bigEnum).reader().skipValue(); }),
                  "above 32 bits");
}

TEST(AttrLogTest, HugeLengthsAreRejectedBeforeAllocating) {
  // A string of 2^62 bytes, with three bytes behind it.
  std::string hugeString = bytesOf({0x05, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x40});
  hugeString += "abc";
  EXPECT_CONTAINS(parseFailure([&] { (void)ExactBuffer(hugeString).reader().readString(); }),
                  "string of 4611686018427387904 bytes, but only 3 left");
  EXPECT_CONTAINS(parseFailure([&] { ExactBuffer(hugeString).reader().skipValue(); }),
                  "string longer than the bytes left");
  std::string oneTooLong = bytesOf({0x05, 0x04, 'a', 'b', 'c'});
  EXPECT_CONTAINS(parseFailure([&] { (void)ExactBuffer(oneTooLong).reader().readString(); }),
                  "string of 4 bytes, but only 3 left");

  // A compound claiming more values than the bytes left could hold.
  std::string manyValues = bytesOf({0x07, 0xff, 0xff, 0xff, 0xff, 0x0f, 0x04, 0x01});
  EXPECT_CONTAINS(parseFailure([&] { (void)ExactBuffer(manyValues).reader().beginCompound(); }),
                  "compound of 4294967295 values, but only 2 bytes left");
  std::string threeInFive = bytesOf({0x07, 0x03, 0x04, 0x01, 0x04, 0x01, 0x04});
  EXPECT_CONTAINS(parseFailure([&] { (void)ExactBuffer(threeInFive).reader().beginCompound(); }),
                  "compound of 3 values");
  std::string beyond32 = bytesOf({0x07, 0x80, 0x80, 0x80, 0x80, 0x10});
  EXPECT_CONTAINS(parseFailure([&] { ExactBuffer(beyond32).reader().skipValue(); }),
                  "compound of 4294967296 values");
}

TEST(AttrLogTest, ReadingPastACompoundIsRejected) {
  Orb::AttrLogOut out;
  out.beginCompound(1);
  out.writeU8(1);
  out.endCompound();
  out.writeU8(2);
  Orb::AttrLogIn in(out.bytes());
  EXPECT_EQ(in.beginCompound(), 1u);
  EXPECT_EQ(in.readU8(), 1u);
  EXPECT_CONTAINS(parseFailure([&] { (void)in.readU8(); }),
                  "byte 4: read past the end of a compound of 1 values");
}

TEST(AttrLogTest, EnumeratorNumbersAreCheckedAgainstTheirType) {
  const Orb::EnumDescriptor method("Test::Method", {{"GET", 1}, {"HEAD", 3}});
  Orb::AttrLogOut out;
  out.writeEnum(3);
  out.writeEnum(2);
  Orb::AttrLogIn in(out.bytes());
  EXPECT_EQ(in.readEnum(method), 3u);
  EXPECT_CONTAINS(parseFailure([&] { (void)in.readEnum(method); }),
                  "byte 2: Test::Method has no enumerator numbered 2");
}

TEST(AttrLogTest, TrailingBytesFailExpectEnd) {
  Orb::AttrLogOut out;
  out.writeU8(1);
  out.writeU8(2);
  Orb::AttrLogIn in(out.bytes());
  EXPECT_EQ(in.readU8(), 1u);
  EXPECT_CONTAINS(parseFailure([&] { in.expectEnd(); }), "2 bytes left after the last value");
  Orb::AttrLogIn empty(nullptr, 0);
  EXPECT_TRUE(empty.atEnd());
  empty.expectEnd();
  EXPECT_CONTAINS(parseFailure([&] { (void)empty.readU8(); }), "truncated");
}

TEST(AttrLogTest, MiscountedCompoundsAreCallerFaults) {
  Orb::Expect expect;
  expect.add(Orb::ExceptionId::internal);
  Orb::AttrLogOut shortOne;
  shortOne.beginCompound(2);
  shortOne.writeU8(1);
  EXPECT_THROW((void)shortOne.bytes(), Orb::InternalException);
  EXPECT_THROW(shortOne.endCompound(), Orb::InternalException);

  Orb::AttrLogOut longOne;
  longOne.beginCompound(1);
  longOne.writeU8(1);
  EXPECT_THROW(longOne.writeU8(2), Orb::InternalException);
  longOne.endCompound();
  EXPECT_THROW(longOne.endCompound(), Orb::InternalException);
  EXPECT_EQ(longOne.bytes(), bytesOf({0x07, 0x01, 0x01, 0x01}));

  Orb::AttrLogIn in(longOne.bytes());
  EXPECT_THROW(in.endCompound(), Orb::InternalException);
  (void)in.beginCompound();
  EXPECT_THROW(in.expectEnd(), Orb::InternalException);
}

// Random damage must end in a parse exception or a successful read, never in a read outside
// the buffer (checked under AddressSanitizer) or an unbounded allocation.
TEST(AttrLogTest, CorruptedBuffersFailCleanly) {
  const std::string valid = writeRequest();
  std::mt19937 random(20240601);
  Orb::Expect expect;
  expect.add(Orb::ExceptionId::parse);
  int rejected = 0;
  for (int round = 0; round < 3000; ++round) {
    std::string bytes = valid;
    int damage = 1 + int(random() % 3);
    for (int d = 0; d < damage; ++d) bytes[random() % bytes.size()] = char(random());
    bytes.resize(random() % (bytes.size() + 1));
    ExactBuffer buffer(bytes);
    try {
      Orb::AttrLogIn in = buffer.reader();
      while (!in.atEnd()) in.skipValue();
    } catch (const Orb::ParseException&) {
      ++rejected;
    }
  }
  EXPECT_GT(rejected, 0);
}

}  // namespace
