#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <string>

#include "Orb/Enumeration.h"
#include "Orb/Exception.h"
#include "Orb/ValueText.h"

namespace {

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

#define EXPECT_CONTAINS(haystack, needle) \
  EXPECT_PRED_FORMAT2(testing::IsSubstring, needle, haystack)

bool isPrintableAscii(std::string_view text) {
  for (char c : text) {
    if (c < 0x20 || c > 0x7e) return false;
  }
  return true;
}

TEST(ValueTextTest, BooleansAndIntegersPrintInDecimal) {
  EXPECT_EQ(Orb::valueToStrep(true), "True");
  EXPECT_EQ(Orb::valueToStrep(false), "False");
  EXPECT_EQ(Orb::valueToStrep(0), "0");
  EXPECT_EQ(Orb::valueToStrep(-1), "-1");
  EXPECT_EQ(Orb::valueToStrep(std::numeric_limits<uint64_t>::max()), "18446744073709551615");
  EXPECT_EQ(Orb::valueToStrep(std::numeric_limits<int64_t>::min()), "-9223372036854775808");
  EXPECT_EQ(Orb::valueToStrep(std::numeric_limits<uint32_t>::max()), "4294967295");
  EXPECT_EQ(Orb::valueToStrep(std::numeric_limits<int32_t>::min()), "-2147483648");
  EXPECT_EQ(Orb::valueToStrep(uint16_t(65535)), "65535");
  EXPECT_EQ(Orb::valueToStrep(int16_t(-32768)), "-32768");
  EXPECT_EQ(Orb::valueToStrep(uint8_t(255)), "255");
  EXPECT_EQ(Orb::valueToStrep(int8_t(-128)), "-128");
  EXPECT_EQ(Orb::valueToStrep(1ul << 40), "1099511627776");
  // A literal is text, not a pointer turned bool.
  EXPECT_EQ(Orb::valueToStrep("GET"), "'GET'");
}

TEST(ValueTextTest, DoublesPrintShortestAndReadBackExactly) {
  EXPECT_EQ(Orb::valueToStrep(0.1), "0.1");
  EXPECT_EQ(Orb::valueToStrep(2.5), "2.5");
  EXPECT_EQ(Orb::valueToStrep(-0.0), "-0");
  EXPECT_EQ(Orb::valueToStrep(std::numeric_limits<double>::infinity()), "inf");
  EXPECT_EQ(Orb::valueToStrep(-std::numeric_limits<double>::infinity()), "-inf");
  EXPECT_EQ(Orb::valueToStrep(std::numeric_limits<double>::quiet_NaN()), "nan");
  EXPECT_EQ(Orb::valueToStrep(-std::numeric_limits<double>::quiet_NaN()), "nan");

  const double values[] = {0.0,
                           -0.0,
                           0.1,
                           1.0 / 3,
                           -2.5e-8,
                           1e300,
                           std::numeric_limits<double>::max(),
                           std::numeric_limits<double>::lowest(),
                           std::numeric_limits<double>::min(),
                           std::numeric_limits<double>::denorm_min(),
                           std::numeric_limits<double>::epsilon(),
                           std::numeric_limits<double>::infinity(),
                           -std::numeric_limits<double>::infinity()};
  for (double value : values) {
    Orb::String text = Orb::valueToStrep(value);
    double back = Orb::doubleFromStrep(text.view());
    EXPECT_EQ(std::memcmp(&back, &value, sizeof(double)), 0) << text;
  }
  EXPECT_TRUE(std::isnan(Orb::doubleFromStrep("nan")));

  EXPECT_CONTAINS(parseFailure([] { (void)Orb::doubleFromStrep("1e999"); }), "out of range");
  std::string text = "x";
  const char* it = text.data();
  EXPECT_CONTAINS(
      parseFailure([&] { (void)Orb::sequenceToDouble(it, text.data() + text.size(), "ratio"); }),
      "cannot read attribute 'ratio': expected a number but found 'x'");
}

TEST(ValueTextTest, QuotedFormRoundTripsEveryByte) {
  std::string all;
  for (int b = 0; b < 256; ++b) {
    std::string one(1, char(b));
    Orb::String text = Orb::valueToStrep(one);
    EXPECT_TRUE(isPrintableAscii(text.view())) << b;
    EXPECT_EQ(Orb::stringFromStrep(text.view()), Orb::String(one)) << b;
    all += char(b);
  }
  Orb::String text = Orb::valueToStrep(all);
  EXPECT_TRUE(isPrintableAscii(text.view()));
  EXPECT_EQ(Orb::stringFromStrep(text.view()).str(), all);

  EXPECT_EQ(Orb::valueToStrep(std::string_view()), "''");
  EXPECT_EQ(Orb::valueToStrep(std::string("a\0b", 3)), "'a\\x00b'");
  EXPECT_EQ(Orb::valueToStrep("it's \\ \n\r\t"), "'it\\'s \\\\ \\n\\r\\t'");
  EXPECT_EQ(Orb::valueToStrep("\x1f\x7f\x80\xff"), "'\\x1f\\x7f\\x80\\xff'");
  EXPECT_EQ(Orb::valueToStrep(Orb::String("http://example/a")), "'http://example/a'");
  // Upper-case hex digits read back too.
  EXPECT_EQ(Orb::stringFromStrep("'\\xFF\\xAb'"), Orb::String("\xff\xab"));
}

TEST(ValueTextTest, QuotedStringStopsAtItsClosingQuote) {
  std::string text = "'a\\'b', 'c'";
  const char* it = text.data();
  const char* end = text.data() + text.size();
  EXPECT_EQ(Orb::sequenceToString(it, end, "name"), "a'b");
  EXPECT_EQ(std::string_view(it, size_t(end - it)), ", 'c'");
}

TEST(ValueTextTest, BadQuotedFormsNameTheAttribute) {
  auto read = [](std::string text) {
    return parseFailure([&] {
      const char* it = text.data();
      (void)Orb::sequenceToString(it, text.data() + text.size(), "uri");
    });
  };
  EXPECT_CONTAINS(read("abc"), "cannot read attribute 'uri': expected a quoted string");
  EXPECT_CONTAINS(read(""), "expected a quoted string but found end of text");
  EXPECT_CONTAINS(read("'abc"), "cannot read attribute 'uri': missing closing quote");
  EXPECT_CONTAINS(read("'abc\\"), "missing closing quote");
  EXPECT_CONTAINS(read("'abc\\'"), "missing closing quote");
  EXPECT_CONTAINS(read("'\\q'"), "cannot read attribute 'uri': bad escape '\\\\q'");
  EXPECT_CONTAINS(read("'\\x4'"), "two hex digits");
  EXPECT_CONTAINS(read("'\\x4"), "two hex digits");
  EXPECT_CONTAINS(read("'\\xg0'"), "two hex digits");
}

TEST(ValueTextTest, LiteralMismatchSaysWhatWasExpectedAndFound) {
  std::string text = "Value('Retra::RequestKey')";
  const char* it = text.data();
  const char* end = text.data() + text.size();
  Orb::matchLiteral(it, end, "Value(");
  EXPECT_EQ(*it, '\'');

  std::string wrong = "Valve('Retra::RequestKey', ** {'method': GET})";
  it = wrong.data();
  std::string message =
      parseFailure([&] { Orb::matchLiteral(it, wrong.data() + wrong.size(), "Value("); });
  EXPECT_CONTAINS(message, "expected 'Value(' but found 'Valve(\\'Retra::RequestKey'...");

  it = text.data() + text.size();
  EXPECT_CONTAINS(parseFailure([&] { Orb::matchLiteral(it, it, ")"); }),
                  "expected ')' but found end of text");
}

TEST(ValueTextTest, NumbersOutOfRangeNameTheAttribute) {
  auto readUnsigned = [](std::string text, uint64_t max) {
    const char* it = text.data();
    return Orb::sequenceToUnsigned(it, text.data() + text.size(), "port", max);
  };
  auto readSigned = [](std::string text, int64_t min, int64_t max) {
    const char* it = text.data();
    return Orb::sequenceToSigned(it, text.data() + text.size(), "offset", min, max);
  };
  EXPECT_EQ(readUnsigned("65535", 65535), 65535u);
  EXPECT_EQ(readUnsigned("0", 0), 0u);
  EXPECT_EQ(readUnsigned("18446744073709551615", UINT64_MAX), UINT64_MAX);
  EXPECT_CONTAINS(parseFailure([&] { (void)readUnsigned("65536", 65535); }),
                  "cannot read attribute 'port': 65536 is out of range (at most 65535)");
  EXPECT_CONTAINS(parseFailure([&] { (void)readUnsigned("18446744073709551616", UINT64_MAX); }),
                  "attribute 'port': 18446744073709551616 is out of range");
  EXPECT_CONTAINS(parseFailure([&] { (void)readUnsigned("-1", 10); }),
                  "attribute 'port': expected a decimal number but found '-1'");
  EXPECT_CONTAINS(parseFailure([&] { (void)readUnsigned(std::string(100, '9'), UINT64_MAX); }),
                  "999...");

  EXPECT_EQ(readSigned("-9223372036854775808", INT64_MIN, INT64_MAX), INT64_MIN);
  EXPECT_EQ(readSigned("9223372036854775807", INT64_MIN, INT64_MAX), INT64_MAX);
  EXPECT_EQ(readSigned("-128", -128, 127), -128);
  EXPECT_EQ(readSigned("0", 0, 0), 0);
  EXPECT_CONTAINS(parseFailure([&] { (void)readSigned("-129", -128, 127); }),
                  "cannot read attribute 'offset': -129 is out of range (-128 to 127)");
  EXPECT_CONTAINS(parseFailure([&] { (void)readSigned("128", -128, 127); }), "128 is out");
  EXPECT_CONTAINS(parseFailure([&] { (void)readSigned("-9223372036854775809", INT64_MIN, 0); }),
                  "out of range");
  EXPECT_CONTAINS(parseFailure([&] { (void)readSigned("9223372036854775808", 0, INT64_MAX); }),
                  "out of range");
  EXPECT_CONTAINS(parseFailure([&] { (void)readSigned("-", -1, 1); }),
                  "expected a decimal number but found end of text");

  // A number ends at the first byte that is not a digit.
  std::string text = "42, 7";
  const char* it = text.data();
  EXPECT_EQ(Orb::sequenceToUnsigned(it, text.data() + text.size(), "a", 100), 42u);
  EXPECT_EQ(*it, ',');
}

TEST(ValueTextTest, BooleansReadTrueOrFalseOnly) {
  EXPECT_TRUE(Orb::boolFromStrep("True"));
  EXPECT_FALSE(Orb::boolFromStrep("False"));
  std::string text = "true";
  const char* it = text.data();
  EXPECT_CONTAINS(
      parseFailure([&] { (void)Orb::sequenceToBool(it, text.data() + text.size(), "secure"); }),
      "cannot read attribute 'secure': expected True or False but found 'true'");
}

TEST(ValueTextTest, ExpectEndRejectsTrailingText) {
  EXPECT_EQ(Orb::unsignedFromStrep("12"), 12u);
  EXPECT_CONTAINS(parseFailure([] { (void)Orb::unsignedFromStrep("12 "); }),
                  "expected end of text but found ' '");
  EXPECT_CONTAINS(parseFailure([] { (void)Orb::stringFromStrep("'a''b'"); }),
                  "expected end of text but found '\\'b\\''");
  EXPECT_CONTAINS(parseFailure([] { (void)Orb::signedFromStrep(""); }), "end of text");
  const char* empty = "";
  Orb::expectEnd(empty, empty);
}

TEST(ValueTextTest, EnumeratorNamesReadBackOrNameTheAttribute) {
  const Orb::EnumDescriptor method("Test::Method", {{"GET", 1}, {"GETALL", 2}, {"HEAD", 3}});
  std::string text = "GETALL, HEAD";
  const char* it = text.data();
  const char* end = text.data() + text.size();
  EXPECT_EQ(Orb::sequenceToEnum(it, end, "method", method), 2u);
  Orb::matchLiteral(it, end, ", ");
  EXPECT_EQ(Orb::sequenceToEnum(it, end, "method", method), 3u);
  Orb::expectEnd(it, end);

  std::string unknown = "PUT";
  it = unknown.data();
  EXPECT_CONTAINS(parseFailure([&] {
                    (void)Orb::sequenceToEnum(it, unknown.data() + unknown.size(), "method",
                                              method);
                  }),
                  "cannot read attribute 'method': Test::Method: no enumerator name at 'PUT'");
}

TEST(ValueTextTest, ComposedValueFormReadsBackThroughThePrimitives) {
  const Orb::EnumDescriptor method("Test::Method", {{"GET", 1}, {"POST", 2}});
  const Orb::String uri("http://example/a?q='x'\n");
  Orb::String text = Orb::String("Value('Retra::RequestKey', ** {'method': ") +
                     method.valueToStrep(2) + ", 'uri': " + Orb::valueToStrep(uri) +
                     ", 'port': " + Orb::valueToStrep(uint16_t(8080)) +
                     ", 'secure': " + Orb::valueToStrep(true) + "})";
  EXPECT_EQ(text,
            "Value('Retra::RequestKey', ** {'method': POST, 'uri': "
            "'http://example/a?q=\\'x\\'\\n', 'port': 8080, 'secure': True})");

  const char* it = text.begin();
  const char* end = text.end();
  Orb::matchLiteral(it, end, "Value(");
  EXPECT_EQ(Orb::sequenceToString(it, end, "type"), "Retra::RequestKey");
  Orb::matchLiteral(it, end, ", ** {'method': ");
  EXPECT_EQ(Orb::sequenceToEnum(it, end, "method", method), 2u);
  Orb::matchLiteral(it, end, ", 'uri': ");
  EXPECT_EQ(Orb::sequenceToString(it, end, "uri"), uri);
  Orb::matchLiteral(it, end, ",");
  Orb::skipWhitespace(it, end);
  Orb::matchLiteral(it, end, "'port': ");
  EXPECT_EQ(Orb::sequenceToUnsigned(it, end, "port", 65535), 8080u);
  Orb::matchLiteral(it, end, ", 'secure': ");
  EXPECT_TRUE(Orb::sequenceToBool(it, end, "secure"));
  Orb::matchLiteral(it, end, "})");
  Orb::expectEnd(it, end);
}

TEST(ValueTextTest, FormatProducesOutputsOfAnyLength) {
  EXPECT_EQ(Orb::format("%s:%d/%05.1f", "host", 443, 2.25), "host:443/002.2");
  EXPECT_EQ(Orb::format("%s", ""), "");
  // Around the size of the stack buffer, and far beyond it.
  for (size_t length : {254u, 255u, 256u, 257u, 100000u}) {
    std::string long_text(length, 'x');
    long_text.back() = 'y';
    Orb::String out = Orb::format("<%s>", long_text.c_str());
    EXPECT_EQ(out.size(), length + 2);
    EXPECT_EQ(out.str(), "<" + long_text + ">");
  }
  Orb::String padded = Orb::format("%5000d|%c", 7, 'z');
  EXPECT_EQ(padded.size(), 5002u);
  EXPECT_EQ(padded.view().substr(4999), "7|z");
  EXPECT_EQ(padded.view().find_first_not_of(' '), 4999u);
}

}  // namespace
