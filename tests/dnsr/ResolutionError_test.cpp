#include "Dnsr/ResolutionError.h"

#include <ares.h>
#include <gtest/gtest.h>

namespace {

TEST(ResolutionErrorTest, IsARegisteredEnumerationStartingAtNone) {
  const Orb::EnumDescriptor& type = Dnsr::resolutionErrorType();
  EXPECT_EQ(Orb::typeNode("Dnsr::ResolutionError"), &type);
  EXPECT_EQ(type.instance("errNone"), 0u);
  EXPECT_EQ(type.stringValue(Dnsr::errTimeout), "errTimeout");
  EXPECT_EQ(type.enumerators().size(), 8u);
}

TEST(ResolutionErrorTest, GroupsCAresStatusesByCause) {
  EXPECT_EQ(Dnsr::resolutionErrorOfAresStatus(ARES_SUCCESS), Dnsr::errNone);
  EXPECT_EQ(Dnsr::resolutionErrorOfAresStatus(ARES_ENONAME), Dnsr::errNoSuchName);
  // Unreachable servers and broken answers are server failures, not time-outs.
  for (int status : {ARES_ESERVFAIL, ARES_ECONNREFUSED, ARES_EBADRESP, ARES_EOF, ARES_EFORMERR}) {
    EXPECT_EQ(Dnsr::resolutionErrorOfAresStatus(status), Dnsr::errServerFailure) << status;
  }
  for (int status : {ARES_ENOMEM, ARES_EFILE, ARES_ECANCELLED}) {
    EXPECT_EQ(Dnsr::resolutionErrorOfAresStatus(status), Dnsr::errOther) << status;
  }
}

}  // namespace
