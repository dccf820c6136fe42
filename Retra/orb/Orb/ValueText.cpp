#include "Orb/ValueText.h"

#include <charconv>
#include <cmath>
#include <cstdarg>
#include <cstdio>

#include "Orb/Enumeration.h"
#include "Orb/Exception.h"

namespace Orb {

namespace {

// How much of the unread text an error message quotes.
constexpr size_t excerptLength = 24;

const char hexDigits[] = "0123456789abcdef";

void appendQuoted(std::string& out, std::string_view bytes) {
  out += '\'';
  for (char c : bytes) {
    auto byte = static_cast<unsigned char>(c);
    switch (c) {
      case '\\':
        out += "\\\\";
        break;
      case '\'':
        out += "\\'";
        break;
      case '\n':
        out += "\\n";
        break;
      case '\r':
        out += "\\r";
        break;
      case '\t':
        out += "\\t";
        break;
      default:
        if (byte < 0x20 || byte >= 0x7f) {
          out += "\\x";
          out += hexDigits[byte >> 4];
          out += hexDigits[byte & 0xf];
        } else {
          out += c;
        }
    }
  }
  out += '\'';
}

// What the reader found at `it`, for an error message: a quoted excerpt, or "end of text".
std::string found(const char* it, const char* end) {
  if (it == end) return "end of text";
  size_t left = size_t(end - it);
  std::string text;
  appendQuoted(text, std::string_view(it, left < excerptLength ? left : excerptLength));
  if (left > excerptLength) text += "...";
  return text;
}

[[noreturn]] void fail(const char* attrName, const std::string& what) {
  if (!attrName) throwParseException(what);
  throwParseException(std::string("cannot read attribute '") + attrName + "': " + what);
}

[[noreturn]] void failExpected(const char* attrName, std::string_view expected, const char* it,
                               const char* end) {
  fail(attrName, "expected " + std::string(expected) + " but found " + found(it, end));
}

bool isDigit(char c) noexcept {
  return c >= '0' && c <= '9';
}

int hexValue(char c) noexcept {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// Reads the decimal digits at `it` (at least one must be there) into `value`. Returns false when
// the number does not fit 64 bits; the digits are read all the same, so that the caller can
// quote them.
bool readDigits(const char*& it, const char* end, const char* attrName, uint64_t& value) {
  if (it == end || !isDigit(*it)) failExpected(attrName, "a decimal number", it, end);
  bool fits = true;
  value = 0;
  for (; it != end && isDigit(*it); ++it) {
    auto digit = uint64_t(*it - '0');
    if (value > (UINT64_MAX - digit) / 10) fits = false;
    value = value * 10 + digit;
  }
  return fits;
}

[[noreturn]] void failRange(const char* attrName, const char* numberBegin, const char* numberEnd,
                            const std::string& range) {
  std::string_view number(numberBegin, size_t(numberEnd - numberBegin));
  std::string shown(number.substr(0, 40));
  if (number.size() > 40) shown += "...";
  fail(attrName, shown + " is out of range (" + range + ")");
}

// A text view as a range that is never null, so that pointer arithmetic on it is defined.
struct TextRange {
  explicit TextRange(std::string_view text)
      : it(text.data() ? text.data() : ""), end(it + text.size()) {}
  const char* it;
  const char* end;
};

}  // namespace

String valueToStrep(bool value) {
  return value ? String("True") : String("False");
}

String valueToStrep(unsigned long long value) {
  char buffer[24];
  auto result = std::to_chars(buffer, buffer + sizeof(buffer), value);
  return String(buffer, size_t(result.ptr - buffer));
}

String valueToStrep(long long value) {
  char buffer[24];
  auto result = std::to_chars(buffer, buffer + sizeof(buffer), value);
  return String(buffer, size_t(result.ptr - buffer));
}

String valueToStrep(double value) {
  // to_chars would write "-nan" for a NaN with its sign bit set; the sign of a NaN means nothing.
  if (std::isnan(value)) return String("nan");
  char buffer[32];
  auto result = std::to_chars(buffer, buffer + sizeof(buffer), value);
  return String(buffer, size_t(result.ptr - buffer));
}

String valueToStrep(std::string_view bytes) {
  std::string text;
  text.reserve(bytes.size() + 2);
  appendQuoted(text, bytes);
  return String(text);
}

String format(const char* fmt, ...) {
  char buffer[256];
  va_list args;
  va_start(args, fmt);
  va_list again;
  va_copy(again, args);
  int length = std::vsnprintf(buffer, sizeof(buffer), fmt, args);
  va_end(args);
  if (length < 0) {
    va_end(again);
    throwInternalException("format: the C library rejected the format");
  }
  if (size_t(length) < sizeof(buffer)) {
    va_end(again);
    return String(buffer, size_t(length));
  }
  std::string text(size_t(length) + 1, '\0');
  std::vsnprintf(text.data(), text.size(), fmt, again);
  va_end(again);
  return String(text.data(), size_t(length));
}

void matchLiteral(const char*& it, const char* end, std::string_view literal) {
  if (std::string_view(it, size_t(end - it)).starts_with(literal)) {
    it += literal.size();
    return;
  }
  failExpected(nullptr, std::string(valueToStrep(literal).view()), it, end);
}

void skipWhitespace(const char*& it, const char* end) noexcept {
  while (it != end && (*it == ' ' || *it == '\t' || *it == '\n' || *it == '\r')) ++it;
}

void expectEnd(const char* it, const char* end) {
  if (it != end) failExpected(nullptr, "end of text", it, end);
}

String sequenceToString(const char*& it, const char* end, const char* attrName) {
  if (it == end || *it != '\'') failExpected(attrName, "a quoted string", it, end);
  const char* p = it + 1;
  std::string bytes;
  while (p != end && *p != '\'') {
    if (*p != '\\') {
      bytes += *p++;
      continue;
    }
    if (end - p < 2) {  // a backslash as the last byte: the closing quote is missing
      p = end;
      break;
    }
    const char* escape = p;
    switch (p[1]) {
      case '\\':
        bytes += '\\';
        break;
      case '\'':
        bytes += '\'';
        break;
      case 'n':
        bytes += '\n';
        break;
      case 'r':
        bytes += '\r';
        break;
      case 't':
        bytes += '\t';
        break;
      case 'x': {
        int high = end - p >= 4 ? hexValue(p[2]) : -1;
        int low = high >= 0 ? hexValue(p[3]) : -1;
        if (low < 0) failExpected(attrName, "two hex digits after '\\x'", p + 2, end);
        bytes += static_cast<char>(high * 16 + low);
        p += 2;
        break;
      }
      default:
        fail(attrName, "bad escape " + found(escape, escape + 2) + " in a quoted string");
    }
    p += 2;
  }
  if (p == end) fail(attrName, "missing closing quote after " + found(it, end));
  it = p + 1;
  return String(bytes);
}

uint64_t sequenceToUnsigned(const char*& it, const char* end, const char* attrName, uint64_t max) {
  const char* begin = it;
  uint64_t value;
  if (!readDigits(it, end, attrName, value) || value > max) {
    failRange(attrName, begin, it, "at most " + std::to_string(max));
  }
  return value;
}

int64_t sequenceToSigned(const char*& it, const char* end, const char* attrName, int64_t min,
                         int64_t max) {
  const char* begin = it;
  bool negative = it != end && *it == '-';
  if (negative) ++it;
  uint64_t magnitude;
  bool fits = readDigits(it, end, attrName, magnitude);
  // The magnitude of INT64_MIN is one more than INT64_MAX.
  const uint64_t limit = negative ? uint64_t(INT64_MAX) + 1 : uint64_t(INT64_MAX);
  int64_t value = 0;
  if (fits && magnitude <= limit) {
    value = negative ? int64_t(0 - magnitude) : int64_t(magnitude);
  }
  if (!fits || magnitude > limit || value < min || value > max) {
    failRange(attrName, begin, it, std::to_string(min) + " to " + std::to_string(max));
  }
  return value;
}

double sequenceToDouble(const char*& it, const char* end, const char* attrName) {
  double value = 0;
  auto result = std::from_chars(it, end, value);
  if (result.ec == std::errc::invalid_argument) failExpected(attrName, "a number", it, end);
  if (result.ec == std::errc::result_out_of_range) {
    failRange(attrName, it, result.ptr, "beyond what a double holds");
  }
  it = result.ptr;
  return value;
}

bool sequenceToBool(const char*& it, const char* end, const char* attrName) {
  std::string_view rest(it, size_t(end - it));
  if (rest.starts_with("True")) {
    it += 4;
    return true;
  }
  if (rest.starts_with("False")) {
    it += 5;
    return false;
  }
  failExpected(attrName, "True or False", it, end);
}

uint32_t sequenceToEnum(const char*& it, const char* end, const char* attrName,
                        const EnumDescriptor& type) {
  try {
    Expect expect;  // the range failure is reported as a parse failure, not as a fault
    expect.add(ExceptionId::range);
    return type.sequenceToValue(it, end);
  } catch (const RangeException& e) {
    if (!attrName) throwParseException(e.what());
    rethrowFromDeserializeAttr(e, attrName);
  }
}

String stringFromStrep(std::string_view text) {
  TextRange range(text);
  String value = sequenceToString(range.it, range.end, nullptr);
  expectEnd(range.it, range.end);
  return value;
}

uint64_t unsignedFromStrep(std::string_view text, uint64_t max) {
  TextRange range(text);
  uint64_t value = sequenceToUnsigned(range.it, range.end, nullptr, max);
  expectEnd(range.it, range.end);
  return value;
}

int64_t signedFromStrep(std::string_view text, int64_t min, int64_t max) {
  TextRange range(text);
  int64_t value = sequenceToSigned(range.it, range.end, nullptr, min, max);
  expectEnd(range.it, range.end);
  return value;
}

double doubleFromStrep(std::string_view text) {
  TextRange range(text);
  double value = sequenceToDouble(range.it, range.end, nullptr);
  expectEnd(range.it, range.end);
  return value;
}

bool boolFromStrep(std::string_view text) {
  TextRange range(text);
  bool value = sequenceToBool(range.it, range.end, nullptr);
  expectEnd(range.it, range.end);
  return value;
}

}  // namespace Orb
