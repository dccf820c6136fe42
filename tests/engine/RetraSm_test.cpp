// The engine's life cycle: construction over directories that already hold requests, responses
// and resolver records, start, the notification switch, shutdown, and its own notifications.

#include "Retra/engine/RetraSm.h"

#include <gtest/gtest.h>

#include <limits>
#include <string>
#include <vector>

#include "Orb/ActivityManager.h"
#include "Orb/Exception.h"
#include "engine/support/EngineFixture.h"

namespace {

using Retra::RequestKey;

// Notes the engine's notifications.
class EngineWatch : public Retra::RetraSm::NotifieeConst {
 public:
  void onInitialized() override { seen.push_back("initialized"); }
  void onCurlMultiHandle() override { seen.push_back("curlMultiHandle"); }
  void onRequestSm(const RequestKey& key) override {
    seen.push_back("requestSm " + key.uri().str());
  }
  void onRetraCurl(const RequestKey& key) override {
    seen.push_back("retraCurl " + key.uri().str());
  }
  std::vector<std::string> seen;
};

class RetraSmTest : public ::testing::Test {
 protected:
  void TearDown() override {
    for (const auto& engine : engines_) {
      engine->shutdown();
      EngineTest::retain(engine);
    }
    EXPECT_TRUE(EngineTest::runDry());
  }

  Orb::Ptr<Retra::RetraSm> engineIs() {
    auto clock = Orb::activityManager()->clock();
    auto engine =
        Retra::RetraSm::RetraSmIs(requests_, responses_, dnsrRequests_, dnsrRecords_, clock, clock);
    engines_.push_back(engine);
    return engine;
  }
  RequestKey requestIs(const char* uri) {
    const RequestKey key(Retra::GET, uri);
    requests_->requestIs(Retra::Request(key));
    return key;
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

TEST_F(RetraSmTest, StartTakesEachWaitingRequestInOnce) {
  const RequestKey one = requestIs("http://127.0.0.1:1/");
  const RequestKey two = requestIs("http://[::1]:2/");
  auto engine = engineIs();

  EXPECT_TRUE(engine->initialized());
  EXPECT_TRUE(engine->hasNotificationActive());
  EXPECT_NE(engine->curlMultiHandle(), nullptr);
  EXPECT_NE(engine->curlGlobal(), nullptr);
  for (const RequestKey& key : {one, two}) {
    auto response = responses_->response(key);
    ASSERT_TRUE(response);
    EXPECT_EQ(response->numRequest(), 1u);
    EXPECT_EQ(response->requestState(), Retra::stateSendHeader);  // ready, so dispatched
    EXPECT_TRUE(engine->retraResponseReactor(key));
  }
  const std::vector<std::string> messages = trace_.messages();
  auto position = [&](const std::string& message) {
    return std::find(messages.begin(), messages.end(), message) - messages.begin();
  };
  EXPECT_TRUE(trace_.has(2, "handleInitialized"));
  EXPECT_TRUE(trace_.has(3, "Handling requests waiting in the request directory"));
  EXPECT_LT(position("Handling requests waiting in the request directory"),
            position("num outstanding requests=2"));
  EXPECT_EQ(trace_.countStartingWith("num outstanding requests="), 2u);

  // A second start changes nothing and says nothing.
  trace_.clear();
  engine->handleInitialized();
  EXPECT_TRUE(trace_.messages().empty());
  EXPECT_EQ(responses_->response(one)->numRequest(), 1u);
}

TEST_F(RetraSmTest, StartDisarmsTheRefreshClockAndCatchesUpWithResponses) {
  const RequestKey orphan(Retra::GET, "http://127.0.0.1:3/");
  auto response = responses_->responseIs(orphan);
  auto engine = engineIs();
  EXPECT_EQ(engine->refreshClock()->timeMin(), std::numeric_limits<double>::infinity());
  EXPECT_EQ(engine->timeoutClock()->timeMin(), std::numeric_limits<double>::infinity());
  // A response without a request gets a reactor; nothing takes it in.
  EXPECT_TRUE(engine->retraResponseReactor(orphan));
  EXPECT_EQ(response->numRequest(), 0u);
  EXPECT_TRUE(engine->requestSm().empty());

  // Taking a request in arms the refresh scan for now.
  requestIs("http://127.0.0.1:4/");
  EXPECT_LE(engine->refreshClock()->timeMin(), Orb::System::currentTime());

  // The response reactors follow the directory.
  (void)responses_->responseDel(orphan);
  EXPECT_FALSE(engine->retraResponseReactor(orphan));
  EXPECT_EQ(engine->retraResponseReactor().size(), 1u);
}

TEST_F(RetraSmTest, ShutdownWithdrawsEveryRequestAndStopsLibcurl) {
  const RequestKey literal = requestIs("http://127.0.0.1:5/");
  const RequestKey named = requestIs("http://name.test/");
  auto engine = engineIs();
  EXPECT_EQ(dnsrRequests_->request("name.test"), 1u);
  auto watch = Orb::allocate<EngineWatch>();
  watch->notifierIs(engine);

  engine->shutdown();
  EXPECT_TRUE(requests_->request().empty());
  EXPECT_FALSE(responses_->response(literal));
  EXPECT_FALSE(responses_->response(named));
  EXPECT_TRUE(dnsrRequests_->request().empty());
  EXPECT_TRUE(engine->requestSm().empty());
  EXPECT_TRUE(engine->retraResponseReactor().empty());
  EXPECT_EQ(engine->curlMultiHandle(), nullptr);
  EXPECT_FALSE(engine->initialized());
  EXPECT_NE(engine->curlGlobal(), nullptr);  // freed, but not cleared
  EXPECT_EQ(trace_.countStartingWith("Shutting down Retra state machine"), 1u);
  ASSERT_GE(watch->seen.size(), 2u);
  EXPECT_EQ(watch->seen[watch->seen.size() - 2], "curlMultiHandle");
  EXPECT_EQ(watch->seen.back(), "initialized");

  // Stopped: a second shutdown does nothing, and new requests are not taken in.
  engine->shutdown();
  EXPECT_EQ(trace_.countStartingWith("Shutting down Retra state machine"), 1u);
  const RequestKey late = requestIs("http://127.0.0.1:6/");
  EXPECT_FALSE(responses_->response(late));
  // A withdrawal is still carried out.
  (void)responses_->responseIs(late);
  (void)requests_->requestDel(late);
  EXPECT_FALSE(responses_->response(late));
}

TEST_F(RetraSmTest, NotificationSwitchesEveryReactorTogether) {
  auto record = dnsrRecords_->recordIs("r.test");
  (void)responses_->responseIs(RequestKey(Retra::GET, "http://127.0.0.1:7/"));
  auto engine = engineIs();
  auto responseReactor =
      engine->retraResponseReactor(RequestKey(Retra::GET, "http://127.0.0.1:7/"));
  auto recordReactor = engine->dnsrRecordReactor("r.test");
  ASSERT_TRUE(responseReactor);
  ASSERT_TRUE(recordReactor);

  engine->hasNotificationActiveIs(false);
  EXPECT_FALSE(engine->hasNotificationActive());
  EXPECT_FALSE(engine->retraRequest()->isRegisteredNotifiee());
  EXPECT_FALSE(engine->retraResponse()->isRegisteredNotifiee());
  EXPECT_FALSE(engine->dnsrRecord()->isRegisteredNotifiee());
  EXPECT_FALSE(engine->refreshClock()->isRegisteredNotifiee());
  EXPECT_FALSE(engine->timeoutClock()->isRegisteredNotifiee());
  EXPECT_FALSE(responseReactor->isRegisteredNotifiee());
  EXPECT_FALSE(recordReactor->isRegisteredNotifiee());

  const RequestKey key = requestIs("http://127.0.0.1:8/");
  EXPECT_FALSE(responses_->response(key));

  // Switched on again, the request reactor replays the directory.
  engine->hasNotificationActiveIs(true);
  EXPECT_TRUE(responseReactor->isRegisteredNotifiee());
  EXPECT_TRUE(recordReactor->isRegisteredNotifiee());
  EXPECT_TRUE(engine->refreshClock()->isRegisteredNotifiee());
  ASSERT_TRUE(responses_->response(key));
  EXPECT_EQ(responses_->response(key)->requestState(), Retra::stateSendHeader);
}

TEST_F(RetraSmTest, CollectionsNotifyOnlyRealChanges) {
  auto engine = engineIs();
  auto watch = Orb::allocate<EngineWatch>();
  watch->notifierIs(engine);
  const RequestKey key(Retra::GET, "http://127.0.0.1:9/");
  int record = 0;
  engine->retraCurlIs(key, &record);
  engine->retraCurlIs(key, &record);
  EXPECT_EQ(watch->seen, std::vector<std::string>{"retraCurl http://127.0.0.1:9/"});
  EXPECT_TRUE(engine->retraCurlDel(key));
  EXPECT_FALSE(engine->retraCurlDel(key));
  EXPECT_EQ(watch->seen.size(), 2u);

  engine->curlHandleIs(&record, key);
  EXPECT_EQ(engine->curlHandle(&record), key);
  EXPECT_EQ(engine->curlHandle(nullptr), RequestKey());
  engine->curlHandleDelAll();
  EXPECT_TRUE(engine->curlHandle().empty());
}

TEST_F(RetraSmTest, MissingObjectsAreRangeErrors) {
  Orb::Expect expect;
  expect.add(Orb::ExceptionId::range);
  auto clock = Orb::activityManager()->clock();
  EXPECT_THROW((void)Retra::RetraSm::RetraSmIs(requests_, nullptr, dnsrRequests_, dnsrRecords_,
                                               clock, clock),
               Orb::RangeException);
  auto engine = engineIs();
  try {
    (void)engine->retraResponseReactorIs(nullptr);
    ADD_FAILURE() << "no exception";
  } catch (const Orb::RangeException& e) {
    EXPECT_STREQ(e.what(),
                 "null _retraResponseReactor parameter to mutator for "
                 "Retra::RetraSm::retraResponseReactor not allowed\"");
  }
  try {
    (void)engine->dnsrRecordReactorIs(nullptr);
    ADD_FAILURE() << "no exception";
  } catch (const Orb::RangeException& e) {
    EXPECT_STREQ(e.what(),
                 "null _dnsrRecordReactor parameter to mutator for "
                 "Retra::RetraSm::dnsrRecordReactor not allowed\"");
  }
}

}  // namespace
