#include <gtest/gtest.h>

#include <sstream>

#include "Orb/Exception.h"
#include "Orb/String.h"
#include "Orb/Trace.h"

namespace {

// Captures the "Orb" facility's level-1 lines, where unexpected exceptions are reported.
class ExceptionTest : public testing::Test {
 protected:
  void SetUp() override {
    Orb::TraceHandle::outputIs(&out_);
    Orb::TraceHandle::configurationIs("Orb/1");
  }
  void TearDown() override {
    Orb::TraceHandle::configurationIs("");
    Orb::TraceHandle::outputIs(nullptr);
  }
  std::ostringstream out_;
};

TEST_F(ExceptionTest, CarriesTheMessageExactly) {
  Orb::Expect expect;
  expect.add(Orb::ExceptionId::range);
  expect.add(Orb::ExceptionId::internal);
  try {
    Orb::throwRangeException("null ValidPtr");
  } catch (const Orb::RangeException& e) {
    EXPECT_STREQ(e.what(), "null ValidPtr");
    EXPECT_EQ(e.id(), Orb::ExceptionId::range);
  }
  try {
    Orb::throwInternalException(Orb::String("broken \"invariant\""));
  } catch (const Orb::InternalException& e) {
    EXPECT_STREQ(e.what(), "broken \"invariant\"");
  }
  EXPECT_EQ(out_.str(), "");
}

TEST_F(ExceptionTest, UnexpectedKindsAreReportedAsFaultsExpectedOnesAreNot) {
  EXPECT_THROW(Orb::throwInternalException("surprise"), Orb::InternalException);
  EXPECT_NE(out_.str().find("unexpected internal exception: surprise"), std::string::npos);
  out_.str("");
  {
    Orb::Expect outer;
    outer.add(Orb::ExceptionId::internal);
    {
      Orb::Expect inner;  // an inner scope inherits what outer scopes expect
      EXPECT_THROW(Orb::throwInternalException("planned"), Orb::InternalException);
    }
    EXPECT_FALSE(Orb::Expect::isExpected(Orb::ExceptionId::range));
  }
  EXPECT_EQ(out_.str(), "");
  EXPECT_FALSE(Orb::Expect::isExpected(Orb::ExceptionId::internal));
}

TEST_F(ExceptionTest, DeserializeFailuresNameTheAttribute) {
  Orb::Expect expect;
  expect.add(Orb::ExceptionId::range);
  expect.add(Orb::ExceptionId::parse);
  try {
    try {
      Orb::throwRangeException("no enumerator named 'FETCH'");
    } catch (const Orb::RangeException& e) {
      Orb::rethrowFromDeserializeAttr(e, "method");
    }
    FAIL() << "nothing thrown";
  } catch (const Orb::ParseException& e) {
    std::string what = e.what();
    EXPECT_NE(what.find("'method'"), std::string::npos) << what;
    EXPECT_NE(what.find("FETCH"), std::string::npos) << what;
  }
}

}  // namespace
