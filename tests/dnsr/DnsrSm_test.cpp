#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "Dnsr/DnsrSm.h"
#include "Dnsr/ResolutionError.h"
#include "dnsr/support/Dnsmasq.h"
#include "dnsr/support/ResolverTest.h"

namespace {

using DnsrTest::Dnsmasq;
using DnsrTest::ResolverTest;
using DnsrTest::SilentServer;
using Strings = std::vector<std::string>;

const char* const zone =
    "192.0.2.10 both.test\n"
    "2001:db8::10 both.test\n"
    "192.0.2.20 v4only.test\n"
    "2001:db8::30 v6only.test\n"
    "192.0.2.41 many.test\n"
    "192.0.2.42 many.test\n"
    "192.0.2.43 many.test\n"
    "2001:db8::41 many.test\n"
    "2001:db8::42 many.test\n";

// Follows every record of a directory and notes, each time a record becomes valid, the
// addresses it holds at that moment.
class ValidWatch : public Dnsr::ResolutionRecordDir::NotifieeConst {
 public:
  class RecordWatch : public Dnsr::ResolutionRecord::NotifieeConst {
   public:
    explicit RecordWatch(ValidWatch* owner) : owner_(owner) {}
    void onValid() override {
      if (notifier()->valid()) {
        owner_->seenAtValid.push_back(DnsrTest::addressesOf(*notifier()));
      }
    }
    void onLastError() override { ++owner_->lastErrorChanges; }

   private:
    ValidWatch* owner_;
  };

  using Dnsr::ResolutionRecordDir::NotifieeConst::onRecord;
  void onRecord(const Orb::Name& name) override {
    if (auto record = notifier()->record(name)) {
      auto watch = Orb::allocate<RecordWatch>(this);
      watch->notifierIs(record);
      watches.push_back(watch);
    }
  }

  std::vector<Orb::Ptr<RecordWatch>> watches;
  std::vector<Strings> seenAtValid;
  int lastErrorChanges = 0;
};

class DnsrSmTest : public ResolverTest {};

TEST_F(DnsrSmTest, ResolvesBothFamiliesAndWritesAddressesBeforeValid) {
  Dnsmasq dns(zone);
  ASSERT_TRUE(dns.isRunning());
  serviceIs(quickConfig(dns.server()));
  auto watch = Orb::allocate<ValidWatch>();
  watch->notifierIs(records_);

  requests_->requestIs("both.test", 1);
  // The record appears as soon as the look-up starts, not yet valid.
  auto record = this->record("both.test");
  ASSERT_TRUE(record);
  EXPECT_EQ(record->hostname(), "both.test");
  EXPECT_EQ(record->parent(), records_.ptr());
  EXPECT_FALSE(record->valid());
  EXPECT_EQ(service_->lookupsRunning(), 1u);

  ASSERT_TRUE(runUntil([&] { return isValid("both.test"); }));
  EXPECT_EQ(record->lastError(), Dnsr::errNone);
  EXPECT_EQ(addresses("both.test"), (Strings{"192.0.2.10", "2001:db8::10"}));
  ASSERT_EQ(watch->seenAtValid.size(), 1u);
  EXPECT_EQ(watch->seenAtValid[0], (Strings{"192.0.2.10", "2001:db8::10"}));
  EXPECT_EQ(watch->lastErrorChanges, 0);
  EXPECT_EQ(service_->lookupsRunning(), 0u);
}

TEST_F(DnsrSmTest, HostWithOneFamilyOrSeveralAddressesIsValidWithWhatItHas) {
  Dnsmasq dns(zone);
  ASSERT_TRUE(dns.isRunning());
  serviceIs(quickConfig(dns.server()));
  for (const char* host : {"v4only.test", "v6only.test", "many.test"}) {
    requests_->requestIs(host, 1);
  }
  ASSERT_TRUE(runUntil(
      [&] { return isValid("v4only.test") && isValid("v6only.test") && isValid("many.test"); }));
  EXPECT_EQ(addresses("v4only.test"), Strings{"192.0.2.20"});
  EXPECT_EQ(addresses("v6only.test"), Strings{"2001:db8::30"});
  EXPECT_EQ(addresses("many.test"),
            (Strings{"192.0.2.41", "192.0.2.42", "192.0.2.43", "2001:db8::41", "2001:db8::42"}));
  for (const char* host : {"v4only.test", "v6only.test", "many.test"}) {
    EXPECT_EQ(record(host)->lastError(), Dnsr::errNone) << host;
  }
}

TEST_F(DnsrSmTest, FailedLookUpsSetTheirErrorAndStayInvalid) {
  Dnsmasq dns(zone);
  ASSERT_TRUE(dns.isRunning());
  serviceIs(quickConfig(dns.server()));
  const std::string longLabel(64, 'x');  // labels are at most 63 bytes
  const std::string badName = longLabel + ".test";
  requests_->requestIs("nosuch.test", 1);        // NXDOMAIN
  requests_->requestIs("elsewhere.invalid", 1);  // no upstream: REFUSED
  requests_->requestIs(badName, 1);
  ASSERT_TRUE(runUntil([&] {
    return hasError("nosuch.test", Dnsr::errNoSuchName) &&
           hasError("elsewhere.invalid", Dnsr::errRefused) &&
           hasError(badName.c_str(), Dnsr::errBadName);
  })) << dns.log();
  for (const char* host : {"nosuch.test", "elsewhere.invalid", badName.c_str()}) {
    EXPECT_FALSE(record(host)->valid()) << host;
    EXPECT_TRUE(addresses(host).empty()) << host;
  }
}

TEST_F(DnsrSmTest, ServerThatNeverAnswersGivesTimeout) {
  SilentServer silent;
  serviceIs(quickConfig(silent.server()));
  requests_->requestIs("both.test", 1);
  ASSERT_TRUE(runUntil([&] { return hasError("both.test", Dnsr::errTimeout); }));
  EXPECT_FALSE(record("both.test")->valid());
  EXPECT_GE(silent.queriesReceived(), 2u);  // A and AAAA went out
}

TEST_F(DnsrSmTest, HostsFileNamesAndAddressLiteralsNeedNoServer) {
  SilentServer silent;
  serviceIs(quickConfig(silent.server()));
  requests_->requestIs("192.0.2.7", 1);
  requests_->requestIs("2001:db8::7", 1);
  requests_->requestIs("[2001:db8::8]", 1);
  // Literals resolve at once, before the loop runs.
  EXPECT_TRUE(isValid("192.0.2.7"));
  EXPECT_EQ(addresses("192.0.2.7"), Strings{"192.0.2.7"});
  EXPECT_EQ(addresses("2001:db8::7"), Strings{"2001:db8::7"});
  EXPECT_EQ(addresses("[2001:db8::8]"), Strings{"2001:db8::8"});
  EXPECT_EQ(service_->lookupsRunning(), 0u);

  requests_->requestIs("localhost", 1);  // /etc/hosts
  ASSERT_TRUE(runUntil([&] { return isValid("localhost"); }));
  const Strings local = addresses("localhost");
  EXPECT_NE(std::find(local.begin(), local.end(), "127.0.0.1"), local.end());
  EXPECT_EQ(silent.queriesReceived(), 0u);
}

TEST_F(DnsrSmTest, RefreshFollowsChangedAnswers) {
  Dnsmasq dns(zone, /*ttl=*/1);
  ASSERT_TRUE(dns.isRunning());
  serviceIs(quickConfig(dns.server()));
  requests_->requestIs("both.test", 1);
  ASSERT_TRUE(runUntil([&] { return isValid("both.test"); }));
  auto record = this->record("both.test");

  dns.hostsIs("192.0.2.11 both.test\n192.0.2.12 both.test\n");
  ASSERT_TRUE(runUntil([&] {
    return addresses("both.test") == Strings{"192.0.2.11", "192.0.2.12"};
  })) << dns.log();
  EXPECT_EQ(this->record("both.test"), record);  // the same record, updated in place
  EXPECT_TRUE(record->valid());
  EXPECT_EQ(record->lastError(), Dnsr::errNone);
}

TEST_F(DnsrSmTest, FailedRefreshKeepsTheAddressesAndASuccessClearsTheError) {
  Dnsmasq dns(zone, /*ttl=*/1);
  ASSERT_TRUE(dns.isRunning());
  serviceIs(quickConfig(dns.server()));
  requests_->requestIs("both.test", 1);
  ASSERT_TRUE(runUntil([&] { return isValid("both.test"); }));

  dns.hostsIs("192.0.2.20 v4only.test\n");  // both.test is gone: NXDOMAIN
  ASSERT_TRUE(runUntil([&] { return hasError("both.test", Dnsr::errNoSuchName); }));
  EXPECT_TRUE(isValid("both.test"));
  EXPECT_EQ(addresses("both.test"), (Strings{"192.0.2.10", "2001:db8::10"}));

  dns.hostsIs(zone);
  ASSERT_TRUE(runUntil([&] { return hasError("both.test", Dnsr::errNone); }));
  EXPECT_TRUE(isValid("both.test"));
  EXPECT_EQ(addresses("both.test"), (Strings{"192.0.2.10", "2001:db8::10"}));
}

TEST_F(DnsrSmTest, WithdrawingARequestDuringItsLookUpCancelsIt) {
  SilentServer silent;
  serviceIs(quickConfig(silent.server()));
  auto watch = Orb::allocate<ValidWatch>();
  watch->notifierIs(records_);
  requests_->requestIs("slow.test", 1);
  requests_->requestIs("zero.test", 1);
  ASSERT_TRUE(runUntil([&] { return silent.queriesReceived() >= 4; }));
  EXPECT_EQ(service_->lookupsRunning(), 2u);
  EXPECT_GT(service_->socketWatches(), 0u);

  requests_->requestDel("slow.test");
  EXPECT_FALSE(record("slow.test"));
  requests_->requestIs("zero.test", 0);  // a count of 0 withdraws too
  EXPECT_FALSE(record("zero.test"));
  EXPECT_EQ(service_->lookupsRunning(), 0u);
  EXPECT_EQ(service_->socketWatches(), 0u);  // nothing left in flight: sockets closed

  runFor(0.8);  // past the query time-out: no late answer brings a record back
  EXPECT_EQ(records_->recordCount(), 0u);
  EXPECT_EQ(watch->lastErrorChanges, 0);
}

TEST_F(DnsrSmTest, WithdrawingOneHostLeavesTheOthersRunning) {
  Dnsmasq dns(zone);
  ASSERT_TRUE(dns.isRunning());
  // Requests filed before the service exists are served too.
  requests_->requestIs("both.test", 1);
  requests_->requestIs("v4only.test", 2);
  serviceIs(quickConfig(dns.server()));
  for (const char* host : {"v6only.test", "many.test", "nosuch.test"}) {
    requests_->requestIs(host, 1);
  }
  EXPECT_EQ(service_->lookupsRunning(), 5u);
  requests_->requestDel("many.test");
  ASSERT_TRUE(runUntil([&] {
    return isValid("both.test") && isValid("v4only.test") && isValid("v6only.test") &&
           hasError("nosuch.test", Dnsr::errNoSuchName);
  }));
  EXPECT_FALSE(record("many.test"));
  EXPECT_EQ(records_->recordCount(), 4u);
  EXPECT_EQ(addresses("v6only.test"), Strings{"2001:db8::30"});
}

// Reacts to the announcement of a record by changing the requests at once.
class Withdrawer : public Dnsr::ResolutionRecordDir::NotifieeConst {
 public:
  explicit Withdrawer(Orb::Ptr<Dnsr::ResolutionRequestDir> requests, bool requestAgain)
      : requests_(std::move(requests)), requestAgain_(requestAgain) {}
  using Dnsr::ResolutionRecordDir::NotifieeConst::onRecord;
  void onRecord(const Orb::Name& name) override {
    if (!notifier()->record(name) || done_) return;
    done_ = true;
    requests_->requestDel(name.string());
    if (requestAgain_) requests_->requestIs(name.string(), 1);
  }

 private:
  Orb::Ptr<Dnsr::ResolutionRequestDir> requests_;
  bool requestAgain_;
  bool done_ = false;
};

TEST_F(DnsrSmTest, RequestsChangedWhileARecordIsAnnouncedAreFollowed) {
  Dnsmasq dns(zone);
  ASSERT_TRUE(dns.isRunning());
  serviceIs(quickConfig(dns.server()));
  auto withdrawer = Orb::allocate<Withdrawer>(requests_, false);
  withdrawer->notifierIs(records_);
  requests_->requestIs("both.test", 1);
  EXPECT_FALSE(record("both.test"));
  EXPECT_EQ(service_->lookupsRunning(), 0u);

  withdrawer = Orb::allocate<Withdrawer>(requests_, true);
  withdrawer->notifierIs(records_);
  requests_->requestIs("v4only.test", 1);
  auto announced = record("v4only.test");
  ASSERT_TRUE(announced);
  EXPECT_EQ(service_->lookupsRunning(), 1u);
  ASSERT_TRUE(runUntil([&] { return isValid("v4only.test"); }));
  EXPECT_EQ(record("v4only.test"), announced);  // the record in the directory is the one served
}

TEST_F(DnsrSmTest, ObserverMayDropTheServiceWhenARecordBecomesValid) {
  Dnsmasq dns(zone);
  ASSERT_TRUE(dns.isRunning());
  serviceIs(quickConfig(dns.server()));
  requests_->requestIs("both.test", 1);
  requests_->requestIs("v4only.test", 1);

  class Dropper : public Dnsr::ResolutionRecord::NotifieeConst {
   public:
    explicit Dropper(Orb::Ptr<Dnsr::DnsrSm>* service) : service_(service) {}
    void onValid() override { *service_ = nullptr; }

   private:
    Orb::Ptr<Dnsr::DnsrSm>* service_;
  };
  auto dropper = Orb::allocate<Dropper>(&service_);
  dropper->notifierIs(record("both.test"));
  ASSERT_TRUE(runUntil([&] { return !service_; }));
  EXPECT_TRUE(isValid("both.test"));
}

TEST_F(DnsrSmTest, DestroyingTheServiceMidLookUpReleasesItsWatches) {
  SilentServer silent;
  serviceIs(quickConfig(silent.server()));
  requests_->requestIs("slow.test", 1);
  ASSERT_TRUE(runUntil([&] { return silent.queriesReceived() >= 2; }));
  EXPECT_GT(service_->socketWatches(), 0u);
  service_ = nullptr;  // TearDown checks that the loop lets go of everything
  runFor(0.5);
  ASSERT_TRUE(record("slow.test"));  // the record stays, never completed
  EXPECT_FALSE(record("slow.test")->valid());
  EXPECT_EQ(record("slow.test")->lastError(), Dnsr::errNone);
}

TEST_F(DnsrSmTest, NotificationOffPausesTheServiceAndOnCatchesUp) {
  Dnsmasq dns(zone);
  ASSERT_TRUE(dns.isRunning());
  serviceIs(quickConfig(dns.server()));
  requests_->requestIs("both.test", 1);
  service_->hasNotificationActiveIs(false);
  requests_->requestIs("v4only.test", 1);
  runFor(0.3);
  EXPECT_FALSE(record("v4only.test"));  // not followed while off
  EXPECT_FALSE(isValid("both.test"));   // its answer waits too

  service_->hasNotificationActiveIs(true);
  ASSERT_TRUE(runUntil([&] { return isValid("both.test") && isValid("v4only.test"); }));
}

TEST_F(DnsrSmTest, ServersComeFromTheEnvironmentByDefault) {
  Dnsmasq dns(zone);
  ASSERT_TRUE(dns.isRunning());
  ::setenv("DNSR_SERVERS", dns.server().c_str(), 1);
  service_ = Dnsr::DnsrSm::DnsrSmIs(records_, requests_);
  ::unsetenv("DNSR_SERVERS");
  ASSERT_EQ(service_->config().servers.size(), 1u);
  EXPECT_EQ(service_->config().servers[0].port(), dns.port());
  requests_->requestIs("v4only.test", 1);
  ASSERT_TRUE(runUntil([&] { return isValid("v4only.test"); }));
  EXPECT_EQ(addresses("v4only.test"), Strings{"192.0.2.20"});
}

}  // namespace
