#include <gtest/gtest.h>

#include <sstream>

#include "Orb/Enumeration.h"
#include "Orb/Exception.h"

namespace {

const Orb::EnumDescriptor colour("Test::Colour", {{"red", 0}, {"green", 1}, {"greenish", 7}});

TEST(EnumerationTest, MapsNumbersAndNamesBothWays) {
  EXPECT_EQ(colour.instance(1u), 1u);
  EXPECT_EQ(colour.instance("greenish"), 7u);
  EXPECT_EQ(colour.instance(Orb::String("red")), 0u);
  EXPECT_EQ(colour.stringValue(7), "greenish");
  EXPECT_EQ(colour.valueToStrep(0), "red");
  std::ostringstream out;
  colour.write(out, 1);
  EXPECT_EQ(out.str(), "green");
}

TEST(EnumerationTest, RejectsValuesOutsideTheTableWithTheRangeException) {
  Orb::Expect expect;
  expect.add(Orb::ExceptionId::range);
  EXPECT_THROW((void)colour.instance(2u), Orb::RangeException);
  EXPECT_THROW((void)colour.instance("blue"), Orb::RangeException);
  EXPECT_THROW((void)colour.stringValue(8), Orb::RangeException);
  EXPECT_THROW((void)colour.instance(""), Orb::RangeException);
}

TEST(EnumerationTest, ParsesTheLongestNameAndStopsAfterIt) {
  std::string text = "greenish})";
  const char* it = text.data();
  EXPECT_EQ(colour.sequenceToValue(it, text.data() + text.size()), 7u);
  EXPECT_EQ(std::string(it), "})");

  std::string bad = "blue";
  it = bad.data();
  Orb::Expect expect;
  expect.add(Orb::ExceptionId::range);
  EXPECT_THROW((void)colour.sequenceToValue(it, bad.data() + bad.size()), Orb::RangeException);
  EXPECT_EQ(it, bad.data());
}

}  // namespace
