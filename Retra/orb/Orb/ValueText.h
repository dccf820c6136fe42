#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "Orb/String.h"

namespace Orb {

class EnumDescriptor;

// The text form of values ("value form"), and the primitives that read it back.
//
// Value types compose their text from these pieces, and their parsers read it back piece by
// piece with the `sequenceTo...` and `matchLiteral` primitives:
//
//   Value('Retra::RequestKey', ** {'method': GET, 'uri': 'http://example/a'})
//
// Numbers are decimal, booleans `True` / `False`, enumerations their enumerator name, and
// strings the quoted form: single quotes, `\\`, `\'`, `\n`, `\r`, `\t`, and `\xhh` for every
// other byte below 0x20 or from 0x7f up. Any byte string (NULs included) therefore has a
// printable ASCII form that reads back to the same bytes.
//
// Every reader takes the text as `it` .. `end`, moves `it` past what it read, and raises the
// parse exception (Orb::ParseException) when the text does not match, naming what it expected,
// what it found, and the attribute being read:
//
//   const char* it = text.begin();
//   Orb::matchLiteral(it, text.end(), "{'port': ");
//   auto port = Orb::sequenceToUnsigned(it, text.end(), "port", 65535);
//   Orb::matchLiteral(it, text.end(), "}");
//   Orb::expectEnd(it, text.end());

// -- Text forms ------------------------------------------------------------------------------

// "True" or "False".
[[nodiscard]] String valueToStrep(bool value);

[[nodiscard]] String valueToStrep(unsigned long long value);
[[nodiscard]] String valueToStrep(long long value);
// The other integer widths, so that no call is ambiguous. Bytes print as numbers.
[[nodiscard]] inline String valueToStrep(unsigned long value) {
  return valueToStrep(static_cast<unsigned long long>(value));
}
[[nodiscard]] inline String valueToStrep(unsigned int value) {
  return valueToStrep(static_cast<unsigned long long>(value));
}
[[nodiscard]] inline String valueToStrep(unsigned short value) {
  return valueToStrep(static_cast<unsigned long long>(value));
}
[[nodiscard]] inline String valueToStrep(unsigned char value) {
  return valueToStrep(static_cast<unsigned long long>(value));
}
[[nodiscard]] inline String valueToStrep(long value) {
  return valueToStrep(static_cast<long long>(value));
}
[[nodiscard]] inline String valueToStrep(int value) {
  return valueToStrep(static_cast<long long>(value));
}
[[nodiscard]] inline String valueToStrep(short value) {
  return valueToStrep(static_cast<long long>(value));
}
[[nodiscard]] inline String valueToStrep(signed char value) {
  return valueToStrep(static_cast<long long>(value));
}

// The shortest decimal text that reads back to the same double ("0.1", "-0", "1e+300");
// infinities are "inf" and "-inf", and every NaN is "nan".
[[nodiscard]] String valueToStrep(double value);

// The quoted form of the bytes.
[[nodiscard]] String valueToStrep(std::string_view bytes);
[[nodiscard]] inline String valueToStrep(const String& bytes) {
  return valueToStrep(bytes.view());
}
[[nodiscard]] inline String valueToStrep(const std::string& bytes) {
  return valueToStrep(std::string_view(bytes));
}
// Without this a literal would pick the bool overload.
[[nodiscard]] inline String valueToStrep(const char* text) {
  return valueToStrep(std::string_view(text ? text : ""));
}

// printf into a string of any length. A bad format is a fault of the caller; the internal
// exception is raised if the C library rejects it.
[[nodiscard]] String format(const char* fmt, ...) __attribute__((format(printf, 1, 2)));

// -- Parsing primitives ----------------------------------------------------------------------
//
// `attrName` names the attribute in error messages ("cannot read attribute 'port': ..."); it
// may be null when the text is not an attribute.

// Moves past `literal`, which must come next.
void matchLiteral(const char*& it, const char* end, std::string_view literal);
// Moves past spaces, tabs and line ends.
void skipWhitespace(const char*& it, const char* end) noexcept;
// Raises the parse exception unless nothing is left.
void expectEnd(const char* it, const char* end);

// Reads a quoted string back to its bytes: a missing quote or a bad escape is a parse error.
[[nodiscard]] String sequenceToString(const char*& it, const char* end, const char* attrName);
// Reads a decimal number no greater than `max`.
[[nodiscard]] uint64_t sequenceToUnsigned(const char*& it, const char* end, const char* attrName,
                                          uint64_t max);
// Reads an optionally negative decimal number within `min` .. `max`.
[[nodiscard]] int64_t sequenceToSigned(const char*& it, const char* end, const char* attrName,
                                       int64_t min, int64_t max);
// Reads a number in the form `valueToStrep(double)` writes, "inf", "-inf" and "nan" included.
[[nodiscard]] double sequenceToDouble(const char*& it, const char* end, const char* attrName);
// Reads "True" or "False".
[[nodiscard]] bool sequenceToBool(const char*& it, const char* end, const char* attrName);
// Reads the longest enumerator name of `type`; an unknown name is a parse error.
[[nodiscard]] uint32_t sequenceToEnum(const char*& it, const char* end, const char* attrName,
                                      const EnumDescriptor& type);

// Whole-text conveniences: the text must hold the value and nothing else.
[[nodiscard]] String stringFromStrep(std::string_view text);
[[nodiscard]] uint64_t unsignedFromStrep(std::string_view text, uint64_t max = UINT64_MAX);
[[nodiscard]] int64_t signedFromStrep(std::string_view text, int64_t min = INT64_MIN,
                                      int64_t max = INT64_MAX);
[[nodiscard]] double doubleFromStrep(std::string_view text);
[[nodiscard]] bool boolFromStrep(std::string_view text);

}  // namespace Orb
