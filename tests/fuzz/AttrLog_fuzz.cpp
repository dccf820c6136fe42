// The attribute-log reader over arbitrary bytes. Either it rejects them with the parse exception,
// having stayed inside the buffer, or it decodes them, and what it decodes, written again kind
// by kind, is exactly the same bytes (the format is canonical).

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "Orb/AttrLog.h"
#include "fuzz/FuzzCheck.h"

namespace {

using Kind = Orb::AttrKind;

// Copies the value the reader is at to `out`; a compound only begins, and the result is its
// member count.
uint64_t copyValue(Orb::AttrLogIn& in, Orb::AttrLogOut& out) {
  switch (in.nextKind()) {
    case Kind::unsignedInt:
      return out.writeU64(in.readU64()), 0;
    case Kind::signedInt:
      return out.writeI64(in.readI64()), 0;
    case Kind::real:
      return out.writeDouble(in.readDouble()), 0;
    case Kind::boolean:
      return out.writeBool(in.readBool()), 0;
    case Kind::string:
      return out.writeString(in.readString()), 0;
    case Kind::enumeration:
      return out.writeEnum(in.readEnum()), 0;
    case Kind::compound:
      break;
  }
  const uint32_t count = in.beginCompound();
  out.beginCompound(count);
  return count;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // A copy of exactly the input, so that a read past its end is caught.
  const std::string log(reinterpret_cast<const char*>(data), size);
  FuzzCheck::ExpectParse expect;
  Orb::AttrLogIn in(log);
  Orb::AttrLogOut out;
  std::vector<uint64_t> left;  // members not read yet of each open compound
  const bool rejected = FuzzCheck::rejects([&] {
    while (!left.empty() || !in.atEnd()) {
      FUZZ_CHECK(in.valuesLeft() == (left.empty() ? 0 : left.back()));
      if (!left.empty() && left.back() == 0) {
        in.endCompound();
        out.endCompound();
        left.pop_back();
        continue;
      }
      if (!left.empty()) --left.back();
      const bool compound = in.nextKind() == Kind::compound;
      const uint64_t count = copyValue(in, out);
      if (compound) left.push_back(count);
    }
    in.expectEnd();
  });
  FUZZ_CHECK(in.offset() <= log.size());
  if (!rejected) FUZZ_CHECK(out.bytes() == log);
  return 0;
}
