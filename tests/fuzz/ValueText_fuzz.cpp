// The value text readers: whatever they accept prints back and reads again to the same value,
// they move only forward and never past the end, and a rejection is the parse exception and
// nothing else. Any bytes at all print to a printable quoted form that reads back to them.
//
// The first byte picks the reader (and a bound for the integer readers); the rest is the text.

#include <bit>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "Orb/Enumeration.h"
#include "Orb/ValueText.h"
#include "fuzz/FuzzCheck.h"

namespace {

// A quoted form: printable ASCII only, safe in any text, and it reads back to `bytes`.
void checkQuoted(const Orb::String& printed, std::string_view bytes) {
  for (char c : printed.view()) FUZZ_CHECK(c >= 0x20 && c < 0x7f);
  FUZZ_CHECK(Orb::stringFromStrep(printed.view()).view() == bytes);
}

// The reader takes the longest enumerator name the text starts with; names here prefix one
// another.
void checkEnum(std::string_view text) {
  static const Orb::EnumDescriptor colours(
      "FuzzTest::Colour", {{"Red", 0}, {"RedOrange", 1}, {"Re", 2}, {"Blue", 7}, {"B", 9}});
  size_t longest = 0;
  for (const auto& e : colours.enumerators()) {
    if (text.starts_with(e.name)) longest = std::max(longest, e.name.size());
  }
  const char* it = text.data();
  uint32_t value = 0;
  const bool rejected = FuzzCheck::rejects(
      [&] { value = Orb::sequenceToEnum(it, text.data() + text.size(), "colour", colours); });
  FUZZ_CHECK(rejected == (longest == 0));
  FUZZ_CHECK(size_t(it - text.data()) == longest);
  if (!rejected) FUZZ_CHECK(colours.stringValue(value).view() == text.substr(0, longest));
}

void check(uint8_t selector, std::string_view text) {
  const uint8_t bound = selector >> 4;
  switch (selector % 9) {
    default: {  // 0, and the selectors of former readers
      const Orb::String value = Orb::stringFromStrep(text);
      const Orb::String printed = Orb::valueToStrep(value);
      checkQuoted(printed, value.view());
      FUZZ_CHECK(Orb::valueToStrep(Orb::stringFromStrep(printed.view())) == printed);  // canonical
      break;
    }
    case 1: {
      const uint64_t max = bound & 1 ? UINT64_MAX : uint64_t(bound) * 1000;
      const uint64_t value = Orb::unsignedFromStrep(text, max);
      FUZZ_CHECK(value <= max);
      FUZZ_CHECK(Orb::unsignedFromStrep(Orb::valueToStrep(value).view(), max) == value);
      break;
    }
    case 2: {
      const int64_t min = bound & 1 ? INT64_MIN : -int64_t(bound) * 1000;
      const int64_t max = bound & 2 ? INT64_MAX : int64_t(bound) * 100;
      const int64_t value = Orb::signedFromStrep(text, min, max);
      FUZZ_CHECK(value >= min && value <= max);
      FUZZ_CHECK(Orb::signedFromStrep(Orb::valueToStrep(value).view(), min, max) == value);
      break;
    }
    case 3: {  // bit for bit: -0 stays -0, and the shortest form loses no precision
      const double value = Orb::doubleFromStrep(text);
      const double again = Orb::doubleFromStrep(Orb::valueToStrep(value).view());
      FUZZ_CHECK(std::bit_cast<uint64_t>(again) == std::bit_cast<uint64_t>(value) ||
                 (std::isnan(value) && std::isnan(again)));
      break;
    }
    case 4:
      FUZZ_CHECK(Orb::valueToStrep(Orb::boolFromStrep(text)) == text);
      break;
    case 5:
      checkEnum(text);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  // A copy of exactly the text, so that a read past its end is caught.
  const std::string text(reinterpret_cast<const char*>(data) + 1, size - 1);
  checkQuoted(Orb::valueToStrep(text), text);
  FuzzCheck::ExpectParse expect;
  (void)FuzzCheck::rejects([&] { check(data[0], text); });
  return 0;
}
