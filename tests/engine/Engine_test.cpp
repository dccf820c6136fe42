// The engine driven by hand over directories of the test's own: what it takes in at start and
// lets go of at shutdown, its notification switch, reactors it replaces, request intake, host
// records written by hand and the refresh of finished requests.

#include <gtest/gtest.h>

#include <limits>
#include <string>
#include <vector>

#include "Dnsr/ResolutionError.h"
#include "Dnsr/ResolutionRecordDir.h"
#include "Dnsr/ResolutionRequestDir.h"
#include "Ipkit/IpAddr.h"
#include "Orb/ActivityManager.h"
#include "Retra/engine/RetraSm.h"
#include "Retra/model/RequestDir.h"
#include "Retra/model/ResponseDir.h"
#include "Retra/request/RequestSm.h"
#include "engine/support/EngineFixture.h"

namespace {

using Retra::RequestKey;
using Retra::Response;

constexpr double infinity = std::numeric_limits<double>::infinity();

class RetraSmTest : public ::testing::Test {
 protected:
  void TearDown() override {
    Orb::activityManager()->realTimeIs();
    for (const auto& engine : engines_) {
      engine->shutdown();
      engine->hasNotificationActiveIs(false);  // as the root does: the clocks let go too
      EngineTest::retain(engine);
    }
    EXPECT_TRUE(EngineTest::runDry());
  }

  Orb::Ptr<Retra::RetraSm> engineIs() {
    auto clock = Orb::activityManager()->clock();
    engines_.push_back(Retra::RetraSm::RetraSmIs(requests_, responses_, dnsrRequests_, dnsrRecords_,
                                                 clock, clock));
    return engines_.back();
  }
  RequestKey requestIs(const std::string& uri, uint32_t timeoutRefresh = 1800) {
    Retra::Request request(RequestKey(Retra::GET, Orb::String(uri)));
    request.timeoutRefreshIs(timeoutRefresh);
    requests_->requestIs(request);
    return request.requestKey();
  }
  Orb::Ptr<Response> response(const RequestKey& key) const { return responses_->response(key); }
  // Trace lines of response reactors that still act for the engine on a response without
  // state machine.
  size_t reactorsActing() const {
    size_t count = 0;
    for (const auto& message : trace_.messages())
      count += message.ends_with("bad RequestSm handle");
    return count;
  }
  EngineTest::TraceCapture trace_;
  Orb::Ptr<Retra::RequestDir> requests_ = Orb::allocate<Retra::RequestDir>("retraRequest");
  Orb::Ptr<Retra::ResponseDir> responses_ = Orb::allocate<Retra::ResponseDir>("retraResponse");
  Orb::Ptr<Dnsr::ResolutionRequestDir> dnsrRequests_ =
      Orb::allocate<Dnsr::ResolutionRequestDir>("dnsrRequest");
  Orb::Ptr<Dnsr::ResolutionRecordDir> dnsrRecords_ =
      Orb::allocate<Dnsr::ResolutionRecordDir>("dnsrRecord");
  std::vector<Orb::Ptr<Retra::RetraSm>> engines_;
};

TEST_F(RetraSmTest, StartTakesInWhatIsThereAndShutdownLetsEverythingGo) {
  const RequestKey literal = requestIs("http://127.0.0.1:1/");
  const RequestKey named = requestIs("http://name.test/");
  const RequestKey orphan(Retra::GET, "http://127.0.0.1:3/");
  (void)responses_->responseIs(orphan);
  (void)dnsrRecords_->recordIs("r.test");
  auto engine = engineIs();

  EXPECT_EQ(response(literal)->requestState(), Retra::stateSendHeader);  // ready: dispatched
  EXPECT_EQ(response(named)->requestState(), Retra::stateDnsResolving);
  EXPECT_EQ(dnsrRequests_->request("name.test"), 1u);
  EXPECT_EQ(response(orphan)->numRequest(), 0u);  // a reactor, but nothing takes it in
  EXPECT_EQ(engine->retraResponseReactor().size(), 3u);
  EXPECT_TRUE(engine->dnsrRecordReactor("r.test"));
  engine->handleInitialized();  // a second start takes nothing in again
  EXPECT_EQ(response(literal)->numRequest(), 1u);

  // Switched off, nothing is taken in; switched on again, the request directory is replayed.
  engine->hasNotificationActiveIs(false);
  const RequestKey late = requestIs("http://127.0.0.1:8/");
  EXPECT_FALSE(response(late));
  EXPECT_FALSE(engine->retraResponseReactor(orphan)->isRegisteredNotifiee());
  EXPECT_FALSE(engine->timeoutClock()->isRegisteredNotifiee());
  engine->hasNotificationActiveIs(true);
  EXPECT_TRUE(engine->retraResponseReactor(orphan)->isRegisteredNotifiee());
  EXPECT_TRUE(engine->timeoutClock()->isRegisteredNotifiee());
  ASSERT_TRUE(response(late));
  (void)responses_->responseDel(orphan);
  (void)dnsrRecords_->recordDel("r.test");
  EXPECT_FALSE(engine->retraResponseReactor(orphan) || engine->dnsrRecordReactor("r.test"));

  // Shutdown withdraws the resolver requests too; stopped, the engine still carries out a
  // withdrawal.
  engine->shutdown();
  EXPECT_TRUE(dnsrRequests_->request().empty());
  const RequestKey afterStop = requestIs("http://127.0.0.1:6/");
  EXPECT_FALSE(response(afterStop));
  (void)responses_->responseIs(afterStop);
  (void)requests_->requestDel(afterStop);
  EXPECT_FALSE(response(afterStop));
}

// A reactor the engine has let go of may live on (here the test holds it): it must no longer
// act for the engine.
TEST_F(RetraSmTest, ReplacedAndRemovedReactorsNoLongerActForTheEngine) {
  const RequestKey replaced(Retra::GET, "http://127.0.0.1:1/replaced");
  const RequestKey removed(Retra::GET, "http://127.0.0.1:1/removed");
  auto first = responses_->responseIs(replaced);
  auto second = responses_->responseIs(removed);
  auto engine = engineIs();
  auto replacedReactor = engine->retraResponseReactor(replaced);
  auto removedReactor = engine->retraResponseReactor(removed);
  trace_.clear();
  first->requestStateIs(Retra::stateDnsResolving);
  ASSERT_EQ(reactorsActing(), 1u);

  // The same response keeps its reactor; another one for the key gets a new reactor.
  EXPECT_EQ(engine->retraResponseReactorIs(second), removedReactor);
  auto fresh = Orb::allocate<Response>(replaced);
  EXPECT_EQ(engine->retraResponseReactorIs(fresh)->response(), fresh);
  (void)responses_->responseDel(removed);
  auto oldDirectoryReactor = engine->retraResponse();
  engine->retraResponseIs(Orb::allocate<Retra::ResponseDir>("other"));
  trace_.clear();
  first->requestStateIs(Retra::stateFinished);
  second->requestStateIs(Retra::stateFinished);
  (void)responses_->responseIs(RequestKey(Retra::GET, "http://127.0.0.1:1/new"));

  EXPECT_EQ(reactorsActing(), 0u);
  EXPECT_FALSE(engine->retraResponseReactor(RequestKey(Retra::GET, "http://127.0.0.1:1/new")));
  EXPECT_FALSE(engine->retraResponseReactor(removed));
}

TEST_F(RetraSmTest, IntakeTakesTheUriApartAndFailsWhatItCannotFetch) {
  auto engine = engineIs();
  struct Case {
    const char* uri;
    Retra::RequestState state;
    Retra::Error error;
    const char* host;
    uint16_t port;
    Retra::Scheme scheme;
  };
  const Case cases[] = {
      {"https://[::1]/a", Retra::stateSendHeader, Retra::errNone, "", 443, Retra::https},
      {"http://[::1]:8080/b", Retra::stateSendHeader, Retra::errNone, "", 8080, Retra::http},
      {"https://a.test:8443/one", Retra::stateDnsResolving, Retra::errNone, "a.test", 8443,
       Retra::https},
      {"http://a.test/two", Retra::stateDnsResolving, Retra::errNone, "a.test", 80, Retra::http},
      // Digits alone are no address; a port keeps its low sixteen bits.
      {"http://1234/", Retra::stateDnsResolving, Retra::errNone, "1234", 80, Retra::http},
      {"http://127.0.0.1:65616/", Retra::stateSendHeader, Retra::errNone, "", 80, Retra::http},
      {"not a uri", Retra::stateFinished, Retra::errUriParse, "", 0, Retra::http},
      {"http://[::1/", Retra::stateFinished, Retra::errUriParse, "", 0, Retra::http},
      // The scheme is checked after the host was handed to the resolver.
      {"ftp://files.test/a.txt", Retra::stateFinished, Retra::errUnsupportedScheme, "files.test", 0,
       Retra::http},
      {"gopher://127.0.0.1:70/", Retra::stateFinished, Retra::errUnsupportedScheme, "", 70,
       Retra::http},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.uri);
    const RequestKey key = requestIs(c.uri, 30);
    ASSERT_TRUE(response(key));
    EXPECT_EQ(response(key)->requestState(), c.state);
    EXPECT_EQ(response(key)->lastError(), c.error);
    EXPECT_EQ(response(key)->host(), c.host);
    EXPECT_EQ(response(key)->port(), c.port);
    EXPECT_EQ(response(key)->timeoutRefresh(), 30u);
    if (c.error == Retra::errNone) {
      EXPECT_EQ(response(key)->scheme(), c.scheme);
    }
    if (c.error != Retra::errUnsupportedScheme) {
      EXPECT_EQ(response(key)->resolved(), c.state == Retra::stateSendHeader);
    }
    EXPECT_EQ(bool(engine->requestSm(key)), c.state != Retra::stateFinished);
  }
  // One resolver request per host, however many requests wait for it.
  EXPECT_EQ(dnsrRequests_->request().size(), 3u);
  EXPECT_EQ(dnsrRequests_->request("a.test"), 1u);
}

TEST_F(RetraSmTest, HostRecordReleasesOrFailsTheWaitingResponse) {
  auto engine = engineIs();
  const RequestKey key = requestIs("http://h.test/");
  auto response = this->response(key);
  // The test moves the response's state by hand: without its reactor, nothing dispatches it.
  engine->retraResponseReactorDel(key);

  // Neither valid nor failed (a record just created): not resolved, no error, state left alone.
  response->resolvedIs(true);
  response->lastErrorIs(Retra::errTimeout);
  auto record = dnsrRecords_->recordIs("h.test");
  EXPECT_FALSE(response->resolved());
  EXPECT_EQ(response->lastError(), Retra::errNone);
  EXPECT_EQ(response->requestState(), Retra::stateDnsResolving);
  record->ipAddressIs(Ipkit::IpAddr("127.0.0.5"), true);  // addresses alone change nothing
  EXPECT_TRUE(response->ipAddress().empty());

  record->validIs(true);
  EXPECT_EQ(response->requestState(), Retra::stateDispatchReady);
  EXPECT_TRUE(response->resolved());
  EXPECT_EQ(response->ipAddress().size(), 1u);

  // Valid with an error: the error is ignored.
  response->requestStateIs(Retra::stateDnsResolving);
  record->lastErrorIs(Dnsr::errTimeout);
  EXPECT_EQ(response->requestState(), Retra::stateDispatchReady);
  EXPECT_EQ(response->lastError(), Retra::errNone);

  // Failed and not valid: finished with errDnsLookup.
  response->requestStateIs(Retra::stateDnsResolving);
  record->validIs(false);
  EXPECT_EQ(response->requestState(), Retra::stateFinished);
  EXPECT_EQ(response->lastError(), Retra::errDnsLookup);
}

// On the manual clock: a finished request is stamped and fetched again once its period has run
// out, unless it was cancelled or never started.
TEST_F(RetraSmTest, FinishedRequestsAreRefreshedOnceTheirPeriodHasRunOut) {
  Orb::ActivityManager* manager = Orb::activityManager();
  manager->manualTimeIs(1000.0);
  auto engine = engineIs();
  EXPECT_EQ(engine->refreshClock()->timeMin(), infinity);
  const RequestKey failing = requestIs("http://127.0.0.1:80a/", 60);  // fails at intake
  EXPECT_EQ(response(failing)->lastUpdateTime(), 1000.0);
  EXPECT_EQ(response(failing)->lastChangeTime(), 1000.0);
  EXPECT_EQ(engine->refreshClock()->timeMin(), 1060.0);

  manager->timeIs(1060.0);  // at the deadline itself it is not yet past
  manager->runOnce(0);
  EXPECT_EQ(response(failing)->numRequest(), 1u);
  manager->timeIs(1061.0);
  manager->runOnce(0);
  EXPECT_EQ(response(failing)->numRequest(), 2u);
  EXPECT_EQ(engine->refreshClock()->timeMin(), 1121.0);

  for (const Retra::Error error : {Retra::errCancel, Retra::errCurlInit, Retra::errDnsLookup}) {
    SCOPED_TRACE(error);
    const RequestKey key = requestIs("http://wait.test/" + std::to_string(int(error)), 60);
    engine->refreshClock()->timeMinIs(infinity);
    response(key)->lastErrorIs(error);
    response(key)->requestStateIs(Retra::stateFinished);
    EXPECT_FALSE(engine->requestSm(key));
    EXPECT_EQ(engine->refreshClock()->timeMin(),
              error == Retra::errDnsLookup ? manager->currentTime() + 60 : infinity);
  }

  // Reset requests wait for the scan, which restarts one per wake-up.
  const RequestKey reset[] = {requestIs("http://a.test/"), requestIs("http://b.test/")};
  for (const RequestKey& key : reset) engine->doResetRequest(key);
  auto waiting = [&] {
    return int(response(reset[0])->requestState() == Retra::stateNotInit) +
           int(response(reset[1])->requestState() == Retra::stateNotInit);
  };
  for (int left = 2; left > 0; --left) {
    EXPECT_EQ(waiting(), left);
    EXPECT_EQ(engine->refreshClock()->timeMin(), manager->currentTime());
    manager->runOnce(0);
  }
  EXPECT_EQ(waiting(), 0);
  EXPECT_EQ(response(reset[1])->requestState(), Retra::stateDnsResolving);
}

class RootTest : public EngineTest::RootFixture {
 protected:
  void SetUp() override { rootIs(""); }
};

TEST_F(RootTest, EngineIsRebuiltOnlyForOtherObjects) {
  auto clock = Orb::activityManager()->clock();
  auto engineOn = [&](const Orb::Ptr<Orb::Clock>& refreshClock) {
    return root_->retraSmIs(root_->retraRequest(), root_->retraResponse(), root_->dnsrRequest(),
                            root_->dnsrRecord(), refreshClock, clock);
  };
  const Orb::Ptr<Retra::RetraSm> first = engine_;
  EXPECT_EQ(engineOn(clock), first);
  EXPECT_NE(engineOn(Orb::allocate<Orb::Clock>("refresh")), first);
  EXPECT_FALSE(first->hasNotificationActive());
  first->shutdown();
  EngineTest::retain(first);
}

}  // namespace
