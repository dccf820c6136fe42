// The value text readers: whatever they accept prints back and reads again to the same value,
// they move only forward and never past the end, and a rejection is the parse exception and
// nothing else.
//
// The first byte picks the reader (and a bound for the integer readers); the rest is the text.

#include <bit>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

#include "Orb/Enumeration.h"
#include "Orb/Exception.h"
#include "Orb/ValueText.h"
#include "fuzz/FuzzCheck.h"

namespace {

// Names that prefix one another, so that the reader's longest match is exercised.
const Orb::EnumDescriptor& colours() {
  static const Orb::EnumDescriptor type(
      "FuzzTest::Colour", {{"Red", 0}, {"RedOrange", 1}, {"Re", 2}, {"Blue", 7}, {"B", 9}});
  return type;
}

// Every byte of a quoted form is printable ASCII: the form is safe in any text.
void checkPrintable(std::string_view text) {
  for (char c : text) FUZZ_CHECK(c >= 0x20 && c < 0x7f);
}

void checkString(std::string_view text) {
  const Orb::String value = Orb::stringFromStrep(text);
  const Orb::String printed = Orb::valueToStrep(value);
  checkPrintable(printed.view());
  FUZZ_CHECK(Orb::stringFromStrep(printed.view()) == value);
  // The printed form is canonical: printing what it reads gives the same text.
  FUZZ_CHECK(Orb::valueToStrep(Orb::stringFromStrep(printed.view())) == printed);
}

// Any bytes at all print to a quoted form that reads back to them.
void checkAnyBytesQuote(std::string_view bytes) {
  const Orb::String printed = Orb::valueToStrep(bytes);
  checkPrintable(printed.view());
  FUZZ_CHECK(Orb::stringFromStrep(printed.view()).view() == bytes);
}

void checkUnsigned(std::string_view text, uint8_t selector) {
  const uint64_t max = selector & 1 ? UINT64_MAX : uint64_t(selector) * 1000;
  const uint64_t value = Orb::unsignedFromStrep(text, max);
  FUZZ_CHECK(value <= max);
  FUZZ_CHECK(Orb::unsignedFromStrep(Orb::valueToStrep(value).view(), max) == value);
}

void checkSigned(std::string_view text, uint8_t selector) {
  const int64_t min = selector & 1 ? INT64_MIN : -int64_t(selector) * 1000;
  const int64_t max = selector & 2 ? INT64_MAX : int64_t(selector) * 100;
  const int64_t value = Orb::signedFromStrep(text, min, max);
  FUZZ_CHECK(value >= min && value <= max);
  FUZZ_CHECK(Orb::signedFromStrep(Orb::valueToStrep(value).view(), min, max) == value);
}

void checkDouble(std::string_view text) {
  const double value = Orb::doubleFromStrep(text);
  const double again = Orb::doubleFromStrep(Orb::valueToStrep(value).view());
  if (std::isnan(value)) {
    FUZZ_CHECK(std::isnan(again));
  } else {
    // Bit for bit: -0 stays -0, and the shortest form loses no precision.
    FUZZ_CHECK(std::bit_cast<uint64_t>(again) == std::bit_cast<uint64_t>(value));
  }
}

void checkBool(std::string_view text) {
  const bool value = Orb::boolFromStrep(text);
  FUZZ_CHECK(Orb::boolFromStrep(Orb::valueToStrep(value).view()) == value);
  FUZZ_CHECK(text == (value ? "True" : "False"));
}

// The reader takes the longest enumerator name the text starts with.
void checkEnum(std::string_view text) {
  const Orb::EnumDescriptor& type = colours();
  size_t longest = 0;
  for (const auto& e : type.enumerators()) {
    if (text.starts_with(e.name) && e.name.size() > longest) longest = e.name.size();
  }
  const char* it = text.data();
  const char* end = it + text.size();
  uint32_t value = 0;
  try {
    value = Orb::sequenceToEnum(it, end, "colour", type);
  } catch (const Orb::ParseException&) {
    FUZZ_CHECK(longest == 0);
    FUZZ_CHECK(it == text.data());
    return;
  }
  FUZZ_CHECK(longest > 0);
  FUZZ_CHECK(size_t(it - text.data()) == longest);
  FUZZ_CHECK(type.stringValue(value).view() == text.substr(0, longest));
}

// `matchLiteral`: the first byte after the selector says how long the literal is.
void checkLiteral(std::string_view data) {
  if (data.empty()) return;
  const size_t length = std::min<size_t>(uint8_t(data[0]), data.size() - 1);
  const std::string_view literal = data.substr(1, length);
  const std::string_view text = data.substr(1 + length);
  const char* it = text.data();
  try {
    Orb::matchLiteral(it, text.data() + text.size(), literal);
  } catch (const Orb::ParseException&) {
    FUZZ_CHECK(!text.starts_with(literal));
    FUZZ_CHECK(it == text.data());
    return;
  }
  FUZZ_CHECK(text.starts_with(literal));
  FUZZ_CHECK(it == text.data() + literal.size());
}

// A record in value form read piece by piece as a type's parser would, with white space between
// the pieces: "{'name': <string>, 'count': <unsigned>, 'delta': <signed>, 'ratio': <double>,
// 'on': <bool>}". What it reads prints back to a record that reads the same.
struct Record {
  Orb::String name;
  uint64_t count = 0;
  int64_t delta = 0;
  double ratio = 0;
  bool on = false;
};

Record readRecord(const char*& it, const char* end) {
  Record r;
  Orb::matchLiteral(it, end, "{'name': ");
  r.name = Orb::sequenceToString(it, end, "name");
  Orb::skipWhitespace(it, end);
  Orb::matchLiteral(it, end, ", 'count': ");
  r.count = Orb::sequenceToUnsigned(it, end, "count", UINT32_MAX);
  Orb::skipWhitespace(it, end);
  Orb::matchLiteral(it, end, ", 'delta': ");
  r.delta = Orb::sequenceToSigned(it, end, "delta", INT32_MIN, INT32_MAX);
  Orb::skipWhitespace(it, end);
  Orb::matchLiteral(it, end, ", 'ratio': ");
  r.ratio = Orb::sequenceToDouble(it, end, "ratio");
  Orb::skipWhitespace(it, end);
  Orb::matchLiteral(it, end, ", 'on': ");
  r.on = Orb::sequenceToBool(it, end, "on");
  Orb::matchLiteral(it, end, "}");
  return r;
}

std::string printRecord(const Record& r) {
  return "{'name': " + Orb::valueToStrep(r.name).str() +
         ", 'count': " + Orb::valueToStrep(r.count).str() +
         ", 'delta': " + Orb::valueToStrep(r.delta).str() +
         ", 'ratio': " + Orb::valueToStrep(r.ratio).str() +
         ", 'on': " + Orb::valueToStrep(r.on).str() + "}";
}

void checkRecords(std::string_view text) {
  const char* begin = text.data();
  const char* end = begin + text.size();
  const char* it = begin;
  // Records follow one another until the text ends or one fails to read.
  while (it != end) {
    const char* before = it;
    Record r;
    try {
      r = readRecord(it, end);
    } catch (const Orb::ParseException&) {
      FUZZ_CHECK(it >= before && it <= end);
      return;
    }
    FUZZ_CHECK(it > before && it <= end);
    const std::string printed = printRecord(r);
    const char* p = printed.data();
    const Record again = readRecord(p, printed.data() + printed.size());
    FUZZ_CHECK(p == printed.data() + printed.size());
    FUZZ_CHECK(again.name == r.name && again.count == r.count && again.delta == r.delta);
    FUZZ_CHECK(again.on == r.on);
    FUZZ_CHECK(std::bit_cast<uint64_t>(again.ratio) == std::bit_cast<uint64_t>(r.ratio) ||
               (std::isnan(again.ratio) && std::isnan(r.ratio)));
    Orb::skipWhitespace(it, end);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  const uint8_t selector = data[0];
  // A copy of exactly the text, so that a read past its end is caught.
  const std::string text(reinterpret_cast<const char*>(data) + 1, size - 1);
  const std::string_view view(text);

  checkAnyBytesQuote(view);
  Orb::Expect expect;  // rejections are expected; any other exception is a fault
  expect.add(Orb::ExceptionId::parse);
  try {
    switch (selector % 9) {
      case 0:
        checkString(view);
        break;
      case 1:
        checkUnsigned(view, selector >> 4);
        break;
      case 2:
        checkSigned(view, selector >> 4);
        break;
      case 3:
        checkDouble(view);
        break;
      case 4:
        checkBool(view);
        break;
      case 5:
        checkEnum(view);
        break;
      case 6:
        checkLiteral(view);
        break;
      default:
        checkRecords(view);
        break;
    }
  } catch (const Orb::ParseException&) {
    // A rejected text: the readers may refuse anything, but only this way.
  }
  return 0;
}
