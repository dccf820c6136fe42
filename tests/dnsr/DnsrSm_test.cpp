#include "Dnsr/DnsrSm.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <string>

#include "Dnsr/ResolutionError.h"
#include "dnsr/support/Dnsmasq.h"
#include "dnsr/support/ResolverTest.h"

namespace {

using DnsrTest::Dnsmasq;
using DnsrTest::SilentServer;
using DnsrSmTest = DnsrTest::ResolverTest;  // a dnsmasq that will not start fails the test

const char* const zone =
    "192.0.2.10 both.test\n2001:db8::10 both.test\n192.0.2.41 many.test\n192.0.2.42 many.test\n"
    "2001:db8::41 many.test\n2001:db8::42 many.test\n";

// Counts the changes of a record's validity and error, which users of the record act on, and
// runs `react` on each change of its validity.
class Watch : public Dnsr::ResolutionRecord::NotifieeConst {
 public:
  std::function<void()> react = [] {};
  int changes = 0;
  void onValid() override { ++changes, react(); }
  void onLastError() override { ++changes; }
};

TEST_F(DnsrSmTest, HostsResolveToWhatTheyHaveOrFailWithTheReasonAndAddressesComeFirst) {
  Dnsmasq dns(zone);
  const Orb::Seconds before = Orb::System::currentTime();
  serviceIs(dns.server());
  for (const char* host : {"both.test", "many.test", "nosuch.test"}) requests_->requestIs(host, 1);
  std::string seenAtValid;
  auto watch = Orb::allocate<Watch>();
  watch->react = [&] { seenAtValid = state("both.test"); };
  watch->notifierIs(records_->record("both.test"));
  ASSERT_TRUE(runUntil([&] {
    return std::all_of(records_->begin(), records_->end(), [](const auto& entry) {
      return entry.second->valid() || entry.second->lastError() != Dnsr::errNone;
    });
  })) << dns.log();
  EXPECT_EQ(seenAtValid, "valid errNone 192.0.2.10 2001:db8::10");
  EXPECT_EQ(state("many.test"), "valid errNone 192.0.2.41 192.0.2.42 2001:db8::41 2001:db8::42");
  EXPECT_EQ(state("nosuch.test"), "invalid errNoSuchName");
  // Each look-up, failed ones too, says when it started and how long it took.
  const Orb::Seconds after = Orb::System::currentTime();
  for (const auto& [name, record] : *records_) {
    EXPECT_GT(record->lastLookupDuration(), 0.0) << name;
    EXPECT_LT(record->lastLookupDuration(), after - before) << name;
    EXPECT_GE(record->lastLookupTime(), before) << name;
    EXPECT_LE(record->lastLookupTime() + record->lastLookupDuration(), after) << name;
  }
}

// The first server never answers: each query is passed on to the next.
TEST_F(DnsrSmTest, RefreshFollowsChangedAnswersAndFailedOnesOnlyReportAsRefreshErrors) {
  SilentServer silent;
  Dnsmasq dns(zone, /*ttl=*/1);
  serviceIs(silent.server() + "," + dns.server());
  requests_->requestIs("both.test", 1);
  ASSERT_TRUE(runUntil([&] { return state("both.test").starts_with("valid"); }));
  auto record = records_->record("both.test");
  auto watch = Orb::allocate<Watch>();
  watch->notifierIs(record);
  const Orb::Seconds firstLookup = record->lastLookupTime();
  dns.hostsIs("192.0.2.11 both.test\n");
  ASSERT_TRUE(runUntil([&] { return state("both.test") == "valid errNone 192.0.2.11"; }));
  EXPECT_GT(record->lastLookupTime(), firstLookup);  // refreshes are timed too
  dns.hostsIs("192.0.2.20 v4only.test\n");           // both.test is gone: NXDOMAIN
  ASSERT_TRUE(runUntil([&] { return record->lastRefreshError() == Dnsr::errNoSuchName; }));
  EXPECT_EQ(state("both.test"), "valid errNone 192.0.2.11");
  dns.stop();  // the servers go away: the record stands as it was
  ASSERT_TRUE(runUntil([&] { return record->lastRefreshError() != Dnsr::errNoSuchName; }));
  EXPECT_EQ(state("both.test"), "valid errNone 192.0.2.11");
  EXPECT_EQ(watch->changes, 0);
  EXPECT_GT(silent.queriesReceived(), 0u);
}

// c-ares alone would wait 0.2 + 0.4 + 0.8 + 1.6 s, doubling its time-out each round.
TEST_F(DnsrSmTest, ASilentServerFailsALookUpAfterTimeOutTimesTries) {
  SilentServer silent;
  const Dnsr::DnsrConfig config{Dnsr::NameServer::listOf(silent.server()), 0.2, 4, 10.0};
  service_ = Dnsr::DnsrSm::DnsrSmIs(records_, requests_, config);
  EXPECT_DOUBLE_EQ(service_->lookupDeadline(), 0.8);
  requests_->requestIs("slow.test", 1);
  EXPECT_TRUE(runUntil([&] { return state("slow.test") == "invalid errTimeout"; }, 2.0));
  EXPECT_EQ(service_->lookupsRunning(), 0u);
}

TEST_F(DnsrSmTest, LiteralsNeedNoServerASilentOneTimesOutAndWithdrawalsCancelLookUps) {
  SilentServer silent;
  requests_->requestIs("slow.test", 1);  // filed before the service exists: served too
  serviceIs(silent.server());
  for (const char* host : {"zero.test", "192.0.2.7", "[2001:db8::8]", "localhost"})
    requests_->requestIs(host, 1);
  EXPECT_EQ(state("192.0.2.7"), "valid errNone 192.0.2.7");  // at once, before the loop runs
  EXPECT_EQ(state("[2001:db8::8]"), "valid errNone 2001:db8::8");
  ASSERT_TRUE(runUntil([&] { return state("localhost").starts_with("valid errNone 127.0.0.1"); }));
  ASSERT_TRUE(runUntil([&] { return silent.queriesReceived() >= 4; }));
  EXPECT_EQ(silent.queriesReceived(), 4u);  // A and AAAA of the two names, none for /etc/hosts
  requests_->requestDel("slow.test");
  requests_->requestIs("zero.test", 0);      // a count of 0 withdraws too
  EXPECT_EQ(service_->socketWatches(), 0u);  // nothing left in flight: sockets closed
  requests_->requestIs("left.test", 1);
  ASSERT_TRUE(runUntil([&] { return state("left.test") == "invalid errTimeout"; }));
  EXPECT_EQ(state("slow.test") + state("zero.test"), "nonenone");        // no late answer came back
  ASSERT_TRUE(runUntil([&] { return service_->socketWatches() > 0; }));  // retried after the floor
  service_ = nullptr;  // mid look-up: its record stays, and TearDown checks the handles
  EXPECT_EQ(state("left.test"), "invalid errTimeout");
}

}  // namespace
