// The engine's life cycle: construction over directories that already hold requests, responses
// and resolver records, start, the notification switch, shutdown, and its own notifications.

#include "Retra/engine/RetraSm.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <limits>
#include <string>
#include <vector>

#include "Orb/ActivityManager.h"
#include "Orb/Exception.h"
#include "engine/support/TransferFixture.h"

namespace {

using Retra::RequestKey;

constexpr double infinity = std::numeric_limits<double>::infinity();

// Notes the engine's notifications of its own state.
class EngineWatch : public Retra::RetraSm::NotifieeConst {
 public:
  void onInitialized() override { seen.push_back("initialized"); }
  void onCurlMultiHandle() override { seen.push_back("curlMultiHandle"); }
  std::vector<std::string> seen;
};

using RetraSmTest = EngineTest::DirectoryFixture;

TEST_F(RetraSmTest, StartTakesEachWaitingRequestInOnceAndCatchesUpWithResponses) {
  const RequestKey one = requestIs("http://127.0.0.1:1/");
  const RequestKey two = requestIs("http://[::1]:2/");
  const RequestKey orphan(Retra::GET, "http://127.0.0.1:3/");
  (void)responses_->responseIs(orphan);
  auto engine = engineIs();

  EXPECT_TRUE(engine->initialized());
  EXPECT_NE(engine->curlMultiHandle(), nullptr);
  for (const RequestKey& key : {one, two}) {
    ASSERT_TRUE(response(key));
    EXPECT_EQ(response(key)->numRequest(), 1u);
    EXPECT_EQ(response(key)->requestState(), Retra::stateSendHeader);  // ready, so dispatched
  }
  // A response without a request gets a reactor; nothing takes it in.
  EXPECT_TRUE(engine->retraResponseReactor(orphan));
  EXPECT_EQ(response(orphan)->numRequest(), 0u);
  EXPECT_EQ(engine->requestSm().size(), 2u);
  const std::vector<std::string> messages = trace_.messages();
  const auto waiting = std::find(messages.begin(), messages.end(),
                                 "Handling requests waiting in the request directory");
  EXPECT_TRUE(trace_.has(2, "handleInitialized"));
  EXPECT_EQ(std::count(waiting, messages.end(), "num outstanding requests=2"), 2);

  // A second start changes nothing and says nothing.
  trace_.clear();
  engine->handleInitialized();
  EXPECT_TRUE(trace_.messages().empty());
  EXPECT_EQ(response(one)->numRequest(), 1u);

  // The response reactors follow the directory.
  (void)responses_->responseDel(orphan);
  EXPECT_FALSE(engine->retraResponseReactor(orphan));
  EXPECT_EQ(engine->retraResponseReactor().size(), 2u);
}

TEST_F(RetraSmTest, StartDisarmsTheRefreshClockUntilARequestIsTakenIn) {
  auto engine = engineIs();
  EXPECT_EQ(engine->refreshClock()->timeMin(), infinity);
  EXPECT_EQ(engine->timeoutClock()->timeMin(), infinity);
  requestIs("http://127.0.0.1:4/");
  EXPECT_LE(engine->refreshClock()->timeMin(), Orb::System::currentTime());
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
  EXPECT_FALSE(response(literal) || response(named));
  EXPECT_TRUE(dnsrRequests_->request().empty());
  EXPECT_TRUE(engine->requestSm().empty() && engine->retraResponseReactor().empty());
  EXPECT_EQ(engine->curlMultiHandle(), nullptr);
  EXPECT_FALSE(engine->initialized());
  EXPECT_NE(engine->curlGlobal(), nullptr);  // freed, but not cleared
  EXPECT_EQ(watch->seen, (std::vector<std::string>{"curlMultiHandle", "initialized"}));

  // Stopped: a second shutdown does nothing, and new requests are not taken in.
  engine->shutdown();
  EXPECT_EQ(trace_.countStartingWith("Shutting down Retra state machine"), 1u);
  const RequestKey late = requestIs("http://127.0.0.1:6/");
  EXPECT_FALSE(response(late));
  // A withdrawal is still carried out.
  (void)responses_->responseIs(late);
  (void)requests_->requestDel(late);
  EXPECT_FALSE(response(late));
}

TEST_F(RetraSmTest, RecordsAndResponsesPresentAtStartGetReactorsThatSwitchTogether) {
  (void)dnsrRecords_->recordIs("r.test");
  const RequestKey existing(Retra::GET, "http://127.0.0.1:7/");
  (void)responses_->responseIs(existing);
  auto engine = engineIs();
  auto responseReactor = engine->retraResponseReactor(existing);
  auto recordReactor = engine->dnsrRecordReactor("r.test");
  ASSERT_TRUE(responseReactor && recordReactor);

  engine->hasNotificationActiveIs(false);
  EXPECT_FALSE(engine->retraRequest()->isRegisteredNotifiee());
  EXPECT_FALSE(engine->refreshClock()->isRegisteredNotifiee());
  EXPECT_FALSE(engine->timeoutClock()->isRegisteredNotifiee());
  EXPECT_FALSE(responseReactor->isRegisteredNotifiee());
  EXPECT_FALSE(recordReactor->isRegisteredNotifiee());
  const RequestKey key = requestIs("http://127.0.0.1:8/");
  EXPECT_FALSE(response(key));

  // Switched on again, the request reactor replays the directory.
  engine->hasNotificationActiveIs(true);
  EXPECT_TRUE(responseReactor->isRegisteredNotifiee() && recordReactor->isRegisteredNotifiee());
  EXPECT_TRUE(engine->timeoutClock()->isRegisteredNotifiee());
  ASSERT_TRUE(response(key));
  EXPECT_EQ(response(key)->requestState(), Retra::stateSendHeader);

  // A record that goes away takes its reactor with it.
  (void)dnsrRecords_->recordDel("r.test");
  EXPECT_FALSE(engine->dnsrRecordReactor("r.test"));
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
    (void)engine->dnsrRecordReactorIs(nullptr);
    ADD_FAILURE() << "no exception";
  } catch (const Orb::RangeException& e) {
    EXPECT_STREQ(e.what(),
                 "null _dnsrRecordReactor parameter to mutator for "
                 "Retra::RetraSm::dnsrRecordReactor not allowed\"");
  }
}

}  // namespace
