// Host resolution: resolver records release the responses waiting for their host, with their
// addresses, or fail the first of them. Against a real resolver on a dnsmasq, and against
// records written by hand for the cases a name server cannot produce on demand.

#include <gtest/gtest.h>

#include <algorithm>
#include <sstream>
#include <string>
#include <vector>

#include "Dnsr/ResolutionError.h"
#include "engine/support/TransferFixture.h"

namespace {

using Retra::RequestKey;
using Retra::Response;

std::vector<std::string> addressesOf(const Response& response) {
  std::vector<std::string> addresses;
  for (const auto& [address, present] : response.ipAddress())
    addresses.push_back(address.str().str());
  for (const auto& [address, present] : response.ip6Address())
    addresses.push_back(address.str().str());
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

// Loopback addresses only: a ready response is dispatched at once, and refused there.
class HostResolutionTest : public EngineTest::RootFixture {
 protected:
  void SetUp() override {
    ASSERT_TRUE(dns_.isRunning()) << dns_.log();
    rootIs(dns_.server());
  }
  DnsrTest::Dnsmasq dns_{"127.0.0.11 web.test\n127.0.0.12 web.test\n::1 web.test\n"};
};

TEST_F(HostResolutionTest, ValidRecordReleasesEveryResponseOfTheHostAndServesLaterOnes) {
  const RequestKey keys[] = {requestIs("http://web.test:8080/one"), requestIs("https://web.test/")};
  std::vector<Orb::Ptr<ReadyWatch>> watches;
  for (const RequestKey& key : keys) {
    watches.push_back(Orb::allocate<ReadyWatch>());
    watches.back()->notifierIs(response(key));
  }

  ASSERT_TRUE(EngineTest::runUntil(
      [&] { return watches[0]->dispatchedWithoutError && watches[1]->dispatchedWithoutError; }));
  const std::vector<std::string> expected = {"127.0.0.11", "127.0.0.12", "::1"};
  for (const RequestKey& key : keys) {
    EXPECT_EQ(addressesOf(*response(key)), expected);
    EXPECT_TRUE(response(key)->resolved());
  }
  EXPECT_TRUE(trace_.has(2, "DNS response for host 'web.test'"));
  // Every address line names the IPv4 setter, the IPv6 one included.
  EXPECT_TRUE(trace_.has(9, "response->ipAddressIs( \"::1\", true )"));
  EXPECT_EQ(trace_.countStartingWith("response->ip6AddressIs( \""), 0u);

  // A later request for the host finds the valid record: ready and dispatched at once, without
  // a look-up, and here the IPv6 line names its own setter.
  trace_.clear();
  const RequestKey later = requestIs("http://web.test/three");
  EXPECT_EQ(response(later)->requestState(), Retra::stateSendHeader);
  EXPECT_EQ(addressesOf(*response(later)), expected);
  EXPECT_TRUE(trace_.has(9, "response->ip6AddressIs( \"::1\", true )"));
  EXPECT_EQ(trace_.countStartingWith("Dnsr query host="), 0u);
}

TEST_F(HostResolutionTest, FailedLookupFailsOnlyTheFirstWaitingResponse) {
  const RequestKey keys[] = {requestIs("http://missing.test/one"),
                             requestIs("http://missing.test/two")};
  auto failed = [&] {
    return std::count_if(std::begin(keys), std::end(keys), [&](const RequestKey& key) {
      return response(key)->lastError() == Retra::errDnsLookup;
    });
  };
  ASSERT_TRUE(EngineTest::runUntil([&] { return failed() > 0; }));
  EngineTest::runUntil([] { return false; }, 0.3);  // nothing else follows
  ASSERT_EQ(failed(), 1);
  for (const RequestKey& key : keys) {
    const bool isFailed = response(key)->lastError() == Retra::errDnsLookup;
    EXPECT_EQ(response(key)->requestState(),
              isFailed ? Retra::stateFinished : Retra::stateDnsResolving);
    EXPECT_EQ(response(key)->resolved(), isFailed);
  }
}

using HandWrittenRecordTest = EngineTest::DirectoryFixture;

TEST_F(HandWrittenRecordTest, OutcomeFollowsTheRecordsErrorAndValidity) {
  auto engine = engineIs();
  const RequestKey key = requestIs("http://h.test/");
  auto response = this->response(key);
  // The test moves the response's state by hand: without its reactor, nothing dispatches it.
  engine->retraResponseReactorDel(key);
  EXPECT_EQ(dnsrRequests_->request("h.test"), 1u);

  // Neither valid nor failed (a record just created): not resolved, no error, state left alone.
  response->resolvedIs(true);
  response->lastErrorIs(Retra::errTimeout);
  auto record = dnsrRecords_->recordIs("h.test");
  ASSERT_TRUE(engine->dnsrRecordReactor("h.test"));
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
  sm << "[" << engine->requestSm(key).ptr() << "] ";
  EXPECT_TRUE(trace_.has(9, sm.str() + "resolved: 1 -> 1"));
  EXPECT_TRUE(trace_.has(9, sm.str() + "lastError: errNone -> errDnsLookup"));
}

}  // namespace
