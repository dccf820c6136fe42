// The response reactors' close of finished requests and the refresh scan, on a clock the test
// controls: stamps, refresh scheduling, one restart per wake-up, and fetches repeated once their
// period has run out.

#include <gtest/gtest.h>

#include <limits>
#include <sstream>
#include <string>

#include "Orb/ActivityManager.h"
#include "engine/support/TransferFixture.h"

namespace {

using Retra::RequestKey;

constexpr double infinity = std::numeric_limits<double>::infinity();

// Host names wait for good: the resolver never answers.
class RefreshScanTest : public EngineTest::TransferFixture {
 protected:
  void SetUp() override {
    manager_->manualTimeIs(1000.0);
    TransferFixture::SetUp();
  }
  void TearDown() override {
    manager_->realTimeIs();
    TransferFixture::TearDown();
  }

  // A request whose intake fails at once (a bad port): it finishes without any transfer.
  RequestKey failingRequestIs(const std::string& path, uint32_t timeoutRefresh) {
    Retra::Request request = requestOf("http://127.0.0.1:80a" + path);
    request.timeoutRefreshIs(timeoutRefresh);
    requestIs(request);
    return request.requestKey();
  }
  double wakeTime() const { return engine_->refreshClock()->timeMin(); }
  void timeIs(double now) { manager_->timeIs(now); }

  Orb::ActivityManager* manager_ = Orb::activityManager();
};

TEST_F(RefreshScanTest, FinishedRequestIsStampedAndFetchedAgainOnceItsPeriodHasRunOut) {
  EXPECT_EQ(wakeTime(), infinity);
  engine_->handleRefreshTimer();  // an empty directory arms nothing
  EXPECT_TRUE(trace_.has(2, "handleRefreshTimer"));
  EXPECT_EQ(wakeTime(), infinity);

  const RequestKey key = failingRequestIs("/a", 60);
  auto response = this->response(key);
  EXPECT_EQ(response->lastError(), Retra::errUriParse);
  EXPECT_EQ(response->lastUpdateTime(), 1000.0);
  EXPECT_EQ(response->lastChangeTime(), 1000.0);
  EXPECT_FALSE(engine_->requestSm(key));
  EXPECT_EQ(wakeTime(), 1060.0);  // the refresh replaced the build's wake-up for now
  EXPECT_TRUE(trace_.has(9, "nudgeRefreshClock setting refresh clock to: 1060"));

  // Before the deadline nothing is due; a scan only re-arms for it.
  timeIs(1030.0);
  EXPECT_FALSE(manager_->runOnce(0));
  trace_.clear();
  engine_->handleRefreshTimer();
  EXPECT_TRUE(trace_.has(9, "http://127.0.0.1:80a/a GET state=stateFinished"));
  EXPECT_TRUE(trace_.has(9, "Next scan @1060"));
  EXPECT_EQ(response->numRequest(), 1u);

  // At the deadline itself it is not yet past.
  timeIs(1060.0);
  EXPECT_TRUE(manager_->runOnce(0));
  EXPECT_EQ(response->numRequest(), 1u);

  // Past it, the scan fetches again; the new fetch schedules the next refresh.
  timeIs(1061.0);
  trace_.clear();
  EXPECT_TRUE(manager_->runOnce(0));
  EXPECT_TRUE(trace_.has(9, "Refreshing request"));
  EXPECT_EQ(response->numRequest(), 2u);
  EXPECT_EQ(response->lastUpdateTime(), 1061.0);
  EXPECT_EQ(wakeTime(), 1121.0);
  EXPECT_EQ(trace_.countStartingWith("Next scan @"), 0u);  // its deadline was served
}

TEST_F(RefreshScanTest, EachWakeUpRestartsOneWaitingRequest) {
  const RequestKey keys[] = {requestIs("http://a.test/"), requestIs("http://b.test/"),
                             requestIs("http://c.test/")};
  for (const RequestKey& key : keys) engine_->doResetRequest(key);
  auto waiting = [&] {
    return std::count_if(std::begin(keys), std::end(keys), [&](const RequestKey& key) {
      return response(key)->requestState() == Retra::stateNotInit;
    });
  };
  ASSERT_EQ(waiting(), 3);
  EXPECT_EQ(wakeTime(), 1000.0);

  trace_.clear();
  for (int left = 2; left >= 0; --left) {
    EXPECT_TRUE(manager_->runOnce(0));
    EXPECT_EQ(waiting(), left);
    EXPECT_EQ(wakeTime(), 1000.0);  // the next scan comes straight away
  }
  EXPECT_EQ(trace_.countStartingWith("handleRefreshTimer"), 3u);
  for (const RequestKey& key : keys) {
    EXPECT_EQ(response(key)->requestState(), Retra::stateDnsResolving);
  }
  // Nothing is left to restart and nothing has a refresh deadline: the clock stays disarmed.
  EXPECT_TRUE(manager_->runOnce(0));
  EXPECT_EQ(wakeTime(), infinity);
  EXPECT_FALSE(manager_->runOnce(0));
}

TEST_F(RefreshScanTest, CancelledAndNeverStartedRequestsAreNotRefreshed) {
  for (const Retra::Error error : {Retra::errCancel, Retra::errCurlInit, Retra::errDnsLookup}) {
    SCOPED_TRACE(error);
    const RequestKey key = requestIs("http://wait.test/" + std::to_string(int(error)));
    auto response = this->response(key);
    engine_->refreshClock()->timeMinIs(infinity);
    timeIs(manager_->currentTime() + 1.0);

    // The test finishes the response as the engine would.
    response->lastErrorIs(error);
    response->requestStateIs(Retra::stateFinished);
    EXPECT_EQ(response->lastUpdateTime(), manager_->currentTime());
    EXPECT_FALSE(engine_->requestSm(key));
    const bool refreshed = error == Retra::errDnsLookup;
    EXPECT_EQ(wakeTime(), refreshed ? manager_->currentTime() + 1800.0 : infinity);
  }
}

TEST_F(RefreshScanTest, ReadyResponseWithoutMachineIsOnlyTraced) {
  const RequestKey key = requestIs("http://lost.test/");
  auto response = this->response(key);
  (void)engine_->requestSmDel(key);
  response->requestStateIs(Retra::stateDispatchReady);
  EXPECT_TRUE(trace_.has(3, "[0] state=stateDispatchReady"));
  std::ostringstream reactor;
  reactor << "[" << static_cast<const void*>(engine_->retraResponseReactor(key).ptr())
          << "] bad RequestSm handle";
  EXPECT_TRUE(trace_.has(9, reactor.str()));

  engine_->handleRefreshTimer();
  std::ostringstream lost;
  lost << "RequestSm already deleted for" << key;
  EXPECT_TRUE(trace_.has(9, lost.str()));
  EXPECT_EQ(response->requestState(), Retra::stateDispatchReady);
  EXPECT_EQ(response->numRequest(), 1u);
}

TEST_F(RefreshScanTest, DeletedResponseIsNotRefreshedUntilItsRequestChanges) {
  const RequestKey key = failingRequestIs("/gone", 0);
  (void)root_->retraResponse()->responseDel(key);
  EXPECT_FALSE(engine_->retraResponseReactor(key));
  for (int i = 1; i <= 3; ++i) {
    timeIs(1000.0 + i);
    engine_->handleRefreshTimer();
  }
  EXPECT_FALSE(response(key));
  EXPECT_EQ(trace_.countStartingWith("Refreshing request"), 0u);

  (void)failingRequestIs("/gone", 5);
  ASSERT_TRUE(response(key));
  EXPECT_EQ(response(key)->numRequest(), 1u);
  EXPECT_EQ(response(key)->lastError(), Retra::errUriParse);
}

}  // namespace
