// Host resolution: resolver records release the responses waiting for their host, with their
// addresses, or fail the first of them. Against a real resolver on a dnsmasq, and against
// records written by hand for the cases a name server cannot produce on demand.

#include <gtest/gtest.h>

#include <algorithm>
#include <sstream>
#include <string>
#include <vector>

#include "Dnsr/ResolutionError.h"
#include "Orb/ActivityManager.h"
#include "Retra/engine/RetraSm.h"
#include "dnsr/support/Dnsmasq.h"
#include "engine/support/EngineFixture.h"

namespace {

using Retra::RequestKey;
using Retra::Response;

// Loopback addresses only: a ready response is dispatched at once, and its connection is
// refused there.
const char* const zone =
    "127.0.0.11 web.test\n"
    "127.0.0.12 web.test\n"
    "::1 web.test\n";

std::vector<std::string> addressesOf(const Response& response) {
  std::vector<std::string> addresses;
  for (const auto& [address, present] : response.ipAddress())
    addresses.push_back(address.str().str());
  for (const auto& [address, present] : response.ip6Address()) {
    addresses.push_back(address.str().str());
  }
  std::sort(addresses.begin(), addresses.end());
  return addresses;
}

// Notes whether the response, once ready, was dispatched without error. (Ready responses are
// dispatched from inside the notification of their readiness, so observers that come after the
// engine's reactor see the dispatched state already.)
class ReadyWatch : public Response::NotifieeConst {
 public:
  void onRequestState() override {
    if (notifier()->requestState() == Retra::stateSendHeader) {
      dispatchedWithoutError = notifier()->lastError() == Retra::errNone;
    }
  }
  bool dispatchedWithoutError = false;
};

class HostResolutionTest : public EngineTest::RootFixture {};

TEST_F(HostResolutionTest, ValidRecordReleasesEveryResponseOfTheHost) {
  DnsrTest::Dnsmasq dns(zone);
  ASSERT_TRUE(dns.isRunning());
  rootIs(dns.server());
  const RequestKey one = requestIs("http://web.test:8080/one");
  const RequestKey two = requestIs("https://web.test/two");
  const RequestKey other = requestIs("http://127.0.0.1/");
  EXPECT_EQ(response(one)->requestState(), Retra::stateDnsResolving);
  std::vector<Orb::Ptr<ReadyWatch>> watches;
  for (const RequestKey& key : {one, two}) {
    watches.push_back(Orb::allocate<ReadyWatch>());
    watches.back()->notifierIs(response(key));
  }

  ASSERT_TRUE(EngineTest::runUntil(
      [&] { return watches[0]->dispatchedWithoutError && watches[1]->dispatchedWithoutError; }));
  const std::vector<std::string> expected = {"127.0.0.11", "127.0.0.12", "::1"};
  for (const RequestKey& key : {one, two}) {
    auto response = this->response(key);
    EXPECT_EQ(addressesOf(*response), expected);
    EXPECT_TRUE(response->resolved());
  }
  EXPECT_TRUE(addressesOf(*response(other)).empty());
  EXPECT_TRUE(trace_.has(2, "DNS response for host 'web.test'"));
  // Every address line names the IPv4 setter, the IPv6 one included.
  EXPECT_TRUE(trace_.has(9, "response->ipAddressIs( \"127.0.0.11\", true )"));
  EXPECT_TRUE(trace_.has(9, "response->ipAddressIs( \"::1\", true )"));
  EXPECT_EQ(trace_.countStartingWith("response->ip6AddressIs( \""), 0u);

  // A later request for the host finds the valid record and is ready at once, without a look-up.
  trace_.clear();
  const RequestKey three = requestIs("http://web.test/three");
  EXPECT_EQ(response(three)->requestState(), Retra::stateSendHeader);  // ready, so dispatched
  EXPECT_EQ(addressesOf(*response(three)), expected);
  EXPECT_TRUE(trace_.has(9, "response->ip6AddressIs( \"::1\", true )"));
  EXPECT_EQ(trace_.countStartingWith("Dnsr query host="), 0u);
}

TEST_F(HostResolutionTest, FailedLookupFailsOnlyTheFirstWaitingResponse) {
  DnsrTest::Dnsmasq dns(zone);
  ASSERT_TRUE(dns.isRunning());
  rootIs(dns.server());
  const RequestKey one = requestIs("http://missing.test/one");
  const RequestKey two = requestIs("http://missing.test/two");

  auto failed = [&] {
    int count = 0;
    for (const RequestKey& key : {one, two}) {
      count += response(key)->lastError() == Retra::errDnsLookup ? 1 : 0;
    }
    return count;
  };
  ASSERT_TRUE(EngineTest::runUntil([&] { return failed() > 0; }));
  EngineTest::runUntil([] { return false; }, 0.3);  // nothing else follows
  ASSERT_EQ(failed(), 1);
  for (const RequestKey& key : {one, two}) {
    auto response = this->response(key);
    if (response->lastError() == Retra::errDnsLookup) {
      EXPECT_EQ(response->requestState(), Retra::stateFinished);
      EXPECT_TRUE(response->resolved());
    } else {
      EXPECT_EQ(response->requestState(), Retra::stateDnsResolving);
      EXPECT_FALSE(response->resolved());
    }
  }
}

TEST_F(HostResolutionTest, WithdrawalDropsTheHostsResolverRequestAndRecord) {
  DnsrTest::Dnsmasq dns(zone);
  ASSERT_TRUE(dns.isRunning());
  rootIs(dns.server());
  const RequestKey one = requestIs("http://web.test/one");
  const RequestKey two = requestIs("http://web.test/two");
  ASSERT_TRUE(root_->dnsrRecord()->record("web.test"));
  EXPECT_TRUE(engine_->dnsrRecordReactor("web.test"));

  requestDel(one);
  EXPECT_EQ(resolverRequest("web.test"), 0u);
  EXPECT_FALSE(root_->dnsrRecord()->record("web.test"));
  EXPECT_FALSE(engine_->dnsrRecordReactor("web.test"));
  // The other request is left waiting: nothing will answer for it.
  EngineTest::runUntil([] { return false; }, 0.3);
  EXPECT_EQ(response(two)->requestState(), Retra::stateDnsResolving);
}

// An engine over resolver directories with no resolver service: the test writes the records.
class HandWrittenRecordTest : public ::testing::Test {
 protected:
  void SetUp() override {
    auto clock = Orb::activityManager()->clock();
    engine_ =
        Retra::RetraSm::RetraSmIs(requests_, responses_, dnsrRequests_, dnsrRecords_, clock, clock);
  }
  void TearDown() override {
    engine_->shutdown();
    EngineTest::retain(engine_);
    EXPECT_TRUE(EngineTest::runDry());
  }
  RequestKey requestIs(const char* uri) {
    const RequestKey key(Retra::GET, uri);
    requests_->requestIs(Retra::Request(key));
    return key;
  }
  Orb::Ptr<Response> response(const RequestKey& key) { return responses_->response(key); }

  EngineTest::TraceCapture trace_;
  Orb::Ptr<Retra::RequestDir> requests_ = Orb::allocate<Retra::RequestDir>("retraRequest");
  Orb::Ptr<Retra::ResponseDir> responses_ = Orb::allocate<Retra::ResponseDir>("retraResponse");
  Orb::Ptr<Dnsr::ResolutionRequestDir> dnsrRequests_ =
      Orb::allocate<Dnsr::ResolutionRequestDir>("dnsrRequest");
  Orb::Ptr<Dnsr::ResolutionRecordDir> dnsrRecords_ =
      Orb::allocate<Dnsr::ResolutionRecordDir>("dnsrRecord");
  Orb::Ptr<Retra::RetraSm> engine_;
};

TEST_F(HandWrittenRecordTest, OutcomeFollowsTheRecordsErrorAndValidity) {
  const RequestKey key = requestIs("http://h.test/");
  auto response = this->response(key);
  EXPECT_EQ(response->requestState(), Retra::stateDnsResolving);
  // The test moves the response's state by hand: without its reactor, nothing dispatches it.
  engine_->retraResponseReactorDel(key);
  EXPECT_EQ(dnsrRequests_->request("h.test"), 1u);

  // Neither valid nor failed (a record just created): not resolved, no error, state left alone.
  response->resolvedIs(true);
  response->lastErrorIs(Retra::errTimeout);
  auto record = dnsrRecords_->recordIs("h.test");
  ASSERT_TRUE(engine_->dnsrRecordReactor("h.test"));
  EXPECT_FALSE(response->resolved());
  EXPECT_EQ(response->lastError(), Retra::errNone);
  EXPECT_EQ(response->requestState(), Retra::stateDnsResolving);
  record->ipAddressIs(Ipkit::IpAddr("127.0.0.5"), true);  // addresses alone change nothing
  EXPECT_TRUE(response->ipAddress().empty());

  // Valid: the addresses are copied and the response is ready.
  record->validIs(true);
  EXPECT_EQ(response->requestState(), Retra::stateDispatchReady);
  EXPECT_TRUE(response->resolved());
  EXPECT_EQ(response->ipAddress().size(), 1u);

  // Valid with an error: the error is ignored.
  response->requestStateIs(Retra::stateDnsResolving);
  trace_.clear();
  record->lastErrorIs(Dnsr::errTimeout);
  EXPECT_TRUE(trace_.has(9, "DNS record valid with lastError. Ignoring lastError."));
  EXPECT_EQ(response->requestState(), Retra::stateDispatchReady);
  EXPECT_EQ(response->lastError(), Retra::errNone);

  // Failed and not valid: resolved, yet finished with errDnsLookup.
  response->requestStateIs(Retra::stateDnsResolving);
  trace_.clear();
  record->validIs(false);
  EXPECT_EQ(response->requestState(), Retra::stateFinished);
  EXPECT_EQ(response->lastError(), Retra::errDnsLookup);
  EXPECT_TRUE(response->resolved());
  std::ostringstream sm;
  sm << "[" << engine_->requestSm(key).ptr() << "] ";
  EXPECT_TRUE(trace_.has(9, sm.str() + "resolved: 1 -> 1"));
  EXPECT_TRUE(trace_.has(9, sm.str() + "lastError: errNone -> errDnsLookup"));
}

TEST_F(HandWrittenRecordTest, RecordsPresentAtConstructionGetReactorsAndServeTheDirectPath) {
  auto record = dnsrRecords_->recordIs("ready.test");
  record->ip6AddressIs(Ipkit::Ip6Addr("::1"), true);
  record->validIs(true);
  auto clock = Orb::activityManager()->clock();
  auto engine =
      Retra::RetraSm::RetraSmIs(requests_, responses_, dnsrRequests_, dnsrRecords_, clock, clock);
  EXPECT_TRUE(engine->dnsrRecordReactor("ready.test"));
  engine->hasNotificationActiveIs(false);  // leave the requests below to the fixture's engine
  EngineTest::retain(engine);
  engine->shutdown();

  const RequestKey key = requestIs("https://ready.test/");
  auto response = this->response(key);
  EXPECT_EQ(response->requestState(), Retra::stateSendHeader);  // ready, so dispatched at once
  EXPECT_EQ(response->ip6Address().size(), 1u);
  EXPECT_TRUE(dnsrRequests_->request().empty());

  // A record that goes away takes its reactor with it.
  (void)dnsrRecords_->recordDel("ready.test");
  EXPECT_FALSE(engine_->dnsrRecordReactor("ready.test"));
}

}  // namespace
