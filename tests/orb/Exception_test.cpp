#include "Orb/Exception.h"

#include <gtest/gtest.h>

#include <sstream>

#include "Orb/Trace.h"

namespace {

// The message of the exception of type E that `raise` throws.
template <class E, class F>
std::string messageOf(F&& raise) {
  try {
    raise();
  } catch (const E& e) {
    return e.what();
  }
  return "nothing raised";
}

TEST(ExceptionTest, ExpectedKindsCarryTheirTextQuietlyAndOthersAreReportedAsFaults) {
  std::ostringstream out;  // the "Orb" facility's level 1 reports unexpected exceptions
  Orb::TraceHandle::outputIs(&out);
  Orb::TraceHandle::configurationIs("Orb/1");
  {
    Orb::Expect outer;
    outer.add(Orb::ExceptionId::internal);
    Orb::Expect inner;  // an inner scope inherits what outer scopes expect
    inner.add(Orb::ExceptionId::range);
    EXPECT_EQ(messageOf<Orb::RangeException>([] { Orb::throwRangeException("null ValidPtr"); }),
              "null ValidPtr");
    EXPECT_EQ(messageOf<Orb::InternalException>(
                  [] { Orb::throwInternalException(Orb::String("broken \"invariant\"")); }),
              "broken \"invariant\"");
  }
  EXPECT_EQ(out.str(), "");
  EXPECT_THROW(Orb::throwInternalException("surprise"), Orb::InternalException);
  Orb::TraceHandle::configurationIs("");
  Orb::TraceHandle::outputIs(nullptr);
  EXPECT_NE(out.str().find("unexpected internal exception: surprise"), std::string::npos);
}

}  // namespace
