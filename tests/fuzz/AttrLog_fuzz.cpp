// The attribute-log reader over arbitrary bytes. Either it rejects them with the parse exception,
// having stayed inside the buffer, or it decodes them; what it decodes encodes back to exactly
// the same bytes (the format is canonical), and typed reads of the same log agree with the
// generic decoding: a narrower width, a wrong kind or an unknown enumerator is a parse error,
// skipping values and leaving compounds early land on the next value.

#include <bit>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "Orb/AttrLog.h"
#include "Orb/Enumeration.h"
#include "Orb/Exception.h"
#include "fuzz/FuzzCheck.h"

namespace {

// One decoded value. `next` is the index of the value after it (after its members, for a
// compound).
struct Value {
  Orb::AttrKind kind{};
  uint64_t number = 0;  // unsigned, zigzag-free signed bits, double bits, bool, enumerator
  std::string bytes;    // a string's bytes
  uint32_t count = 0;   // a compound's value count
  size_t next = 0;
};

const Orb::EnumDescriptor& shapes() {
  static const Orb::EnumDescriptor type("FuzzTest::Shape",
                                        {{"circle", 0}, {"square", 1}, {"star", 5}});
  return type;
}

bool isShape(uint64_t number) {
  return number == 0 || number == 1 || number == 5;
}

struct Open {
  size_t end;     // index of the value after the compound's members
  uint32_t left;  // members not read yet
};

// Reads the whole log kind by kind; false when the reader rejects it.
bool decode(const std::string& log, std::vector<Value>& values) {
  Orb::AttrLogIn in(log);
  std::vector<Open> open;
  std::vector<size_t> openAt;  // index of each open compound's own value
  try {
    for (;;) {
      FUZZ_CHECK(in.offset() <= log.size());
      if (open.empty()) {
        FUZZ_CHECK(in.valuesLeft() == 0);
        if (in.atEnd()) break;
      } else {
        FUZZ_CHECK(in.valuesLeft() == open.back().left);
        if (open.back().left == 0) {
          in.endCompound();
          values[openAt.back()].next = values.size();
          open.pop_back();
          openAt.pop_back();
          continue;
        }
        --open.back().left;
      }
      Value v;
      v.kind = in.nextKind();
      switch (v.kind) {
        case Orb::AttrKind::unsignedInt:
          v.number = in.readU64();
          break;
        case Orb::AttrKind::signedInt:
          v.number = uint64_t(in.readI64());
          break;
        case Orb::AttrKind::real:
          v.number = std::bit_cast<uint64_t>(in.readDouble());
          break;
        case Orb::AttrKind::boolean:
          v.number = in.readBool();
          break;
        case Orb::AttrKind::string:
          v.bytes = in.readString().str();
          break;
        case Orb::AttrKind::enumeration:
          v.number = in.readEnum();
          break;
        case Orb::AttrKind::compound:
          v.count = in.beginCompound();
          open.push_back({0, v.count});
          openAt.push_back(values.size());
          break;
      }
      v.next = values.size() + 1;
      values.push_back(std::move(v));
    }
    in.expectEnd();
  } catch (const Orb::ParseException&) {
    FUZZ_CHECK(in.offset() <= log.size());
    return false;
  }
  return true;
}

std::string encode(const std::vector<Value>& values) {
  Orb::AttrLogOut out;
  std::vector<size_t> ends;
  for (size_t i = 0; i <= values.size(); ++i) {
    while (!ends.empty() && ends.back() == i) {
      out.endCompound();
      ends.pop_back();
    }
    if (i == values.size()) break;
    const Value& v = values[i];
    switch (v.kind) {
      case Orb::AttrKind::unsignedInt:
        out.writeU64(v.number);
        break;
      case Orb::AttrKind::signedInt:
        out.writeI64(int64_t(v.number));
        break;
      case Orb::AttrKind::real:
        out.writeDouble(std::bit_cast<double>(v.number));
        break;
      case Orb::AttrKind::boolean:
        out.writeBool(v.number != 0);
        break;
      case Orb::AttrKind::string:
        out.writeString(v.bytes);
        break;
      case Orb::AttrKind::enumeration:
        out.writeEnum(uint32_t(v.number));
        break;
      case Orb::AttrKind::compound:
        out.beginCompound(v.count);
        ends.push_back(v.next);
        break;
    }
  }
  return out.bytes();
}

// A small deterministic generator of choices, seeded from the input.
class Choices {
 public:
  explicit Choices(const std::string& seed) {
    for (char c : seed) state_ = (state_ ^ uint8_t(c)) * 0x100000001b3ull;
  }
  unsigned next(unsigned range) {
    state_ ^= state_ << 13;
    state_ ^= state_ >> 7;
    state_ ^= state_ << 17;
    return unsigned(state_ % range);
  }

 private:
  uint64_t state_ = 0xcbf29ce484222325ull;
};

// Runs `read`, which must raise the parse exception.
template <class Read>
void expectRejected(Read read) {
  bool rejected = false;
  try {
    read();
  } catch (const Orb::ParseException&) {
    rejected = true;
  }
  FUZZ_CHECK(rejected);
}

// Reads the log again with typed reads chosen at random and checks each against `values`.
// Stops at the first read that must fail: the reader is not used after a parse exception.
void reread(const std::string& log, const std::vector<Value>& values) {
  Orb::AttrLogIn in(log);
  Choices choose(log);
  std::vector<Open> open;
  size_t i = 0;
  for (;;) {
    if (!open.empty() && i == open.back().end) {
      FUZZ_CHECK(open.back().left == 0 && in.valuesLeft() == 0);
      in.endCompound();
      open.pop_back();
      continue;
    }
    if (i == values.size()) break;
    FUZZ_CHECK(in.valuesLeft() == (open.empty() ? 0 : open.back().left));
    const unsigned choice = choose.next(12);
    if (choice == 0 && !open.empty()) {  // leave the compound early, skipping its other members
      in.endCompound();
      i = open.back().end;
      open.pop_back();
      continue;
    }
    if (!open.empty()) --open.back().left;
    const Value& v = values[i];
    if (choice == 1) {
      in.skipValue();
      i = v.next;
      continue;
    }
    if (choice == 2) {  // a read of another kind
      if (v.kind == Orb::AttrKind::string) {
        expectRejected([&] { (void)in.readBool(); });
      } else {
        expectRejected([&] { (void)in.readString(); });
      }
      return;
    }
    switch (v.kind) {
      case Orb::AttrKind::unsignedInt: {
        const unsigned width = choice % 4;
        const uint64_t maxima[] = {UINT8_MAX, UINT16_MAX, UINT32_MAX, UINT64_MAX};
        auto read = [&]() -> uint64_t {
          switch (width) {
            case 0:
              return in.readU8();
            case 1:
              return in.readU16();
            case 2:
              return in.readU32();
            default:
              return in.readU64();
          }
        };
        if (v.number > maxima[width]) {
          expectRejected(read);
          return;
        }
        FUZZ_CHECK(read() == v.number);
        break;
      }
      case Orb::AttrKind::signedInt: {
        const auto value = int64_t(v.number);
        if (choice % 2 == 0) {
          if (value < INT32_MIN || value > INT32_MAX) {
            expectRejected([&] { (void)in.readI32(); });
            return;
          }
          FUZZ_CHECK(in.readI32() == value);
        } else {
          FUZZ_CHECK(in.readI64() == value);
        }
        break;
      }
      case Orb::AttrKind::real:
        FUZZ_CHECK(std::bit_cast<uint64_t>(in.readDouble()) == v.number);
        break;
      case Orb::AttrKind::boolean:
        FUZZ_CHECK(in.readBool() == (v.number != 0));
        break;
      case Orb::AttrKind::string:
        FUZZ_CHECK(in.readString().view() == v.bytes);
        break;
      case Orb::AttrKind::enumeration:
        if (choice % 2 == 0) {
          FUZZ_CHECK(in.readEnum() == v.number);
        } else if (isShape(v.number)) {
          FUZZ_CHECK(in.readEnum(shapes()) == v.number);
        } else {
          expectRejected([&] { (void)in.readEnum(shapes()); });
          return;
        }
        break;
      case Orb::AttrKind::compound:
        FUZZ_CHECK(in.beginCompound() == v.count);
        open.push_back({v.next, v.count});
        break;
    }
    ++i;
  }
  in.expectEnd();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // A copy of exactly the input, so that a read past its end is caught.
  const std::string log(reinterpret_cast<const char*>(data), size);
  Orb::Expect expect;  // rejections are expected; any other exception is a fault
  expect.add(Orb::ExceptionId::parse);
  std::vector<Value> values;
  if (!decode(log, values)) return 0;
  FUZZ_CHECK(encode(values) == log);
  reread(log, values);
  return 0;
}
