#include "Retra/model/Enumerations.h"

#include <gtest/gtest.h>

#include <sstream>
#include <vector>

#include "Orb/Exception.h"

namespace {

using namespace Retra;

// Every enumerator of E reads back from its number and from its name, through E's functions.
// clang-format off
#define EXPECT_NAMES_ROUND_TRIP(E)                                       \
  for (const auto& e : descriptorOf(E{}).enumerators()) {                \
    EXPECT_EQ(stringValue(E##Instance(e.value)), Orb::String(e.name));   \
    EXPECT_EQ(E##Instance(Orb::String(e.name)), E(e.value));             \
  }
// clang-format on

TEST(EnumerationsTest, NumbersAreFixedAndNamesReadBack) {
  EXPECT_EQ((std::vector<unsigned>{OPTIONS, PATCH, errCurlOther, stateFinished, authDigest, https}),
            (std::vector<unsigned>{0, 8, 15, 9, 2, 1}));  // numbers are stored in logs
  EXPECT_NAMES_ROUND_TRIP(Method);
  EXPECT_NAMES_ROUND_TRIP(Error);
  EXPECT_NAMES_ROUND_TRIP(RequestState);
  EXPECT_NAMES_ROUND_TRIP(HttpAuthenticationType);
  EXPECT_NAMES_ROUND_TRIP(Scheme);
  std::ostringstream out;
  out << GET << ' ' << errTimeout;
  EXPECT_EQ(out.str(), "GET errTimeout");

  Orb::Expect expect;
  expect.add(Orb::ExceptionId::range);
  EXPECT_THROW((void)ErrorInstance(16), Orb::RangeException);
  EXPECT_THROW((void)MethodInstance(Orb::String("get")), Orb::RangeException);
}

}  // namespace
