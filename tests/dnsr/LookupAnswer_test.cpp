#include "Dnsr/internal/LookupAnswer.h"

#include <ares.h>
#include <gtest/gtest.h>

#include <string>

namespace {

using Dnsr::internal::LookupAnswer;

TEST(LookupAnswerTest, HardFailuresOutrankMissingDataAndAnswersReplaceOnlyTheirFamily) {
  const Ipkit::IpAddr a1("192.0.2.1"), a2("192.0.2.2");
  const Ipkit::Ip6Addr b1("2001:db8::1");
  const int statuses[][3] = {{ARES_ENODATA, ARES_ENODATA, Dnsr::errNoData},
                             {ARES_ENODATA, ARES_ENOTFOUND, Dnsr::errNoSuchName},
                             {ARES_ENODATA, ARES_ETIMEOUT, Dnsr::errTimeout},
                             {ARES_EREFUSED, ARES_ETIMEOUT, Dnsr::errRefused},
                             {ARES_ECONNREFUSED, ARES_EBADRESP, Dnsr::errServerFailure},
                             {ARES_ENOMEM, ARES_ENODATA, Dnsr::errOther}};
  for (const auto& [ip, ip6, error] : statuses) {
    EXPECT_EQ((LookupAnswer{ip, ip6, {}, {}}).error(), unsigned(error));
  }
  EXPECT_EQ((LookupAnswer{ARES_ETIMEOUT, ARES_SUCCESS, {}, {b1}}).error(), Dnsr::errNone);

  // Answers replace their family; a failure touches only the error.
  auto record = Orb::allocate<Dnsr::ResolutionRecord>("a.test");
  record->lastErrorIs(Dnsr::errTimeout);
  Dnsr::internal::answerApplied(*record, {ARES_SUCCESS, ARES_SUCCESS, {a1}, {b1}});
  EXPECT_TRUE(record->valid() && record->lastError() == Dnsr::errNone);
  Dnsr::internal::answerApplied(*record, {ARES_SUCCESS, ARES_ETIMEOUT, {a2}, {}});  // AAAA kept
  EXPECT_TRUE(!record->ipAddress(a1) && record->ipAddress(a2) && record->ip6Address(b1));
  Dnsr::internal::answerApplied(*record, {ARES_SUCCESS, ARES_ENODATA, {a2}, {}});  // AAAA: none
  EXPECT_TRUE(record->ip6Address().empty());
  Dnsr::internal::answerApplied(*record, {ARES_ENOTFOUND, ARES_ENOTFOUND, {}, {}});
  EXPECT_TRUE(record->valid() && record->ipAddress(a2) &&
              record->lastError() == Dnsr::errNoSuchName);
}

}  // namespace
