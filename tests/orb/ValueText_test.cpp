#include "Orb/ValueText.h"

#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <string>
#include <tuple>

#include "Orb/Enumeration.h"
#include "orb/support/OrbTest.h"

namespace {

using namespace Orb;
using Read = std::function<void(const char*&, const char*)>;
const EnumDescriptor method("Test::Method", {{"GET", 1}, {"GETALL", 2}, {"HEAD", 3}});

TEST(ValueTextTest, ValuesPrintInTheirTextForm) {
  const std::pair<String, const char*> cases[] = {
      {valueToStrep(UINT64_MAX), "18446744073709551615"},
      {valueToStrep(INT64_MIN), "-9223372036854775808"},
      {valueToStrep(uint8_t(255)), "255"},  // a number, not a character
      {valueToStrep(0.1), "0.1"},           // the shortest text that reads back
      {valueToStrep("GET"), "'GET'"},       // a literal is text, not a pointer turned bool
      {valueToStrep(std::string("a\0b", 3)), "'a\\x00b'"},
      {valueToStrep("'\\\n\x7f\xff"), "'\\'\\\\\\n\\x7f\\xff'"},  // escapes keep it printable
  };
  for (const auto& [text, expected] : cases) EXPECT_EQ(text, expected);
  for (size_t n : {255u, 256u, 100000u})  // around the stack buffer, and beyond
    EXPECT_EQ(format("<%s>", std::string(n, 'x').c_str()).str(), "<" + std::string(n, 'x') + ">");
}

TEST(ValueTextTest, SequencesStopAfterTheirValueAndNamesAfterTheLongestMatch) {
  std::string text = "'a\\'b', GETALL}";
  const char* it = text.data();
  const char* end = text.data() + text.size();
  EXPECT_EQ(sequenceToString(it, end, "name"), "a'b");
  matchLiteral(it, end, ", ");
  EXPECT_EQ(sequenceToEnum(it, end, "method", method), 2u);
  EXPECT_EQ(std::string(it, end), "}");
  EXPECT_EQ(stringFromStrep("'\\xFF\\xAb'"), String("\xff\xab"));
}

TEST(ValueTextTest, BadTextNamesTheAttributeAndWhatWasFound) {
  const Read uri = [](auto& i, auto e) { (void)sequenceToString(i, e, "uri"); };
  const Read port = [](auto& i, auto e) { (void)sequenceToUnsigned(i, e, "port", 65535); };
  const Read i8 = [](auto& i, auto e) { (void)sequenceToSigned(i, e, "offset", -128, 127); };
  const Read ratio = [](auto& i, auto e) { (void)sequenceToDouble(i, e, "ratio"); };
  const Read secure = [](auto& i, auto e) { (void)sequenceToBool(i, e, "secure"); };
  const Read verb = [](auto& i, auto e) { (void)sequenceToEnum(i, e, "method", method); };
  const std::tuple<const char*, Read, const char*> cases[] = {
      {"abc", uri, "cannot read attribute 'uri': expected a quoted string but found 'abc'"},
      {"'abc\\'", uri, "cannot read attribute 'uri': missing closing quote"},
      {"'\\q'", uri, "cannot read attribute 'uri': bad escape '\\\\q'"},
      {"'\\x4'", uri, "two hex digits"},
      {"65536", port, "cannot read attribute 'port': 65536 is out of range (at most 65535)"},
      {"-1", port, "attribute 'port': expected a decimal number but found '-1'"},
      {"-129", i8, "cannot read attribute 'offset': -129 is out of range (-128 to 127)"},
      {"x", ratio, "cannot read attribute 'ratio': expected a number but found 'x'"},
      {"true", secure, "cannot read attribute 'secure': expected True or False but found 'true'"},
      {"PUT", verb, "cannot read attribute 'method': Test::Method: no enumerator name at 'PUT'"},
  };
  for (const auto& [text, read, message] : cases) {
    std::string copy = text;
    const char* it = copy.data();
    const auto& reader = read;  // clang 14 cannot capture a structured binding
    EXPECT_CONTAINS(OrbTest::parseFailure([&] { reader(it, copy.data() + copy.size()); }), message);
  }
}

}  // namespace
