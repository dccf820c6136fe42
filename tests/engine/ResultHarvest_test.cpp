// Harvest of finished transfers: status, error classification, the published result and the
// statistics that add up over fetches.

#include <curl/curl.h>
#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "engine/support/TransferFixture.h"
#include "support/FaultAnswers.h"

namespace {

using Retra::RequestKey;
using Retra::Response;
using RetraTest::LoopbackHttpServer;

// Every requestState the response goes through, in order.
class StateWatch : public Response::NotifieeConst {
 public:
  void onRequestState() override { seen.push_back(notifier()->requestState()); }
  std::vector<Retra::RequestState> seen;
};

class ResultHarvestTest : public EngineTest::TransferFixture {
 protected:
  // Whether a level-`level` line ends with `suffix`.
  bool traced(unsigned level, const std::string& suffix) const {
    for (const auto& line : trace_.lines()) {
      if (line.level == level && line.message.ends_with(suffix)) return true;
    }
    return false;
  }
};

TEST_F(ResultHarvestTest, AnsweredTransferPublishesItsResultAndStatistics) {
  server_.routeIs("/page",
                  LoopbackHttpServer::Answer{200, {{"Content-Type", "text/plain"}}, "hello"});
  const std::string url = server_.url("/page");
  Retra::Request request = requestOf(url);
  requestIs(request);
  const RequestKey key = request.requestKey();
  auto response = this->response(key);
  auto watch = Orb::allocate<StateWatch>();
  watch->notifierIs(response);
  ASSERT_TRUE(finished(key));

  EXPECT_EQ(response->statusCode(), 200);
  EXPECT_EQ(response->lastError(), Retra::errNone);
  EXPECT_EQ(response->lastErrorMessage(), "");
  EXPECT_EQ(response->body(), "hello");
  EXPECT_EQ(response->header("Content-Type"), "text/plain");
  EXPECT_EQ(response->contentType(), "text/plain");
  EXPECT_EQ(response->effectiveUrl(), url);
  EXPECT_EQ(response->contentLengthDownload(), 5);
  auto counter = response->counter();
  EXPECT_EQ(counter->bytesDownload(), 5u);
  EXPECT_EQ(counter->bytesUpload(), 0u);
  EXPECT_EQ(counter->numConnect(), 1u);
  EXPECT_EQ(counter->numRedirect(), 0u);
  EXPECT_GT(counter->bytesHeaderDownload(), 0u);
  EXPECT_GT(counter->bytesRequestUpload(), 0u);
  EXPECT_GT(counter->speedDownload(), 0.0);
  auto timer = response->timer();
  EXPECT_GT(timer->total(), 0.0);
  EXPECT_GE(timer->total(), timer->request());
  EXPECT_GE(timer->request(), timer->connect());
  EXPECT_EQ(timer->sslHandshake(), 0.0);
  // The body came after the headers, and harvest took the response on from there.
  ASSERT_GE(watch->seen.size(), 3u);
  EXPECT_EQ(watch->seen[watch->seen.size() - 3], Retra::stateRecvHeader);
  EXPECT_EQ(watch->seen[watch->seen.size() - 2], Retra::stateRecvBody);
  EXPECT_EQ(watch->seen.back(), Retra::stateFinished);
  EXPECT_TRUE(traced(9, "] curl_easy_getinfo: res=0 statusCode=200"));
  EXPECT_TRUE(traced(2, "] finishing GET " + url + " (status: 200)"));
  // Finished: stamped, and the machine is gone.
  EXPECT_GT(response->lastUpdateTime(), 0.0);
  EXPECT_EQ(response->lastChangeTime(), response->lastUpdateTime());
  EXPECT_FALSE(engine_->requestSm(key));

  // A second fetch adds to the counts and times; the last fetch's figures replace the first's.
  const uint32_t finishes = counter->numFinish();
  const double total = timer->total();
  EXPECT_GE(finishes, 1u);
  request.timeoutRefreshIs(600);
  requestIs(request);
  ASSERT_TRUE(finished(key));
  EXPECT_EQ(response->numRequest(), 2u);
  EXPECT_EQ(counter->numFinish(), 2 * finishes);
  EXPECT_EQ(counter->bytesDownload(), 10u);
  EXPECT_EQ(counter->numConnect(), 2u);  // the server closes each connection
  EXPECT_GT(timer->total(), total);
  EXPECT_EQ(response->contentLengthDownload(), 5);
  EXPECT_EQ(response->body(), "hello");
}

TEST_F(ResultHarvestTest, FailureStatusIsTheErrorAndEndsTheTransferBeforeTheBody) {
  server_.routeIs("/gone", LoopbackHttpServer::Answer{404, {}, "not here"});
  const RequestKey key = requestIs(server_.url("/gone"));
  ASSERT_TRUE(finished(key));
  EXPECT_EQ(response(key)->statusCode(), 404);
  EXPECT_EQ(response(key)->lastError(), Retra::errHttpStatusCode);
  EXPECT_EQ(response(key)->lastErrorMessage(), "");
  EXPECT_EQ(response(key)->body(), "");
}

TEST_F(ResultHarvestTest, StatusAboveTheRangeIsAnErrorAndNotStored) {
  server_.routeIs("/odd", LoopbackHttpServer::Answer{799, {}, "odd"});
  const RequestKey key = requestIs(server_.url("/odd"));
  ASSERT_TRUE(finished(key));
  EXPECT_EQ(response(key)->statusCode(), 0);
  EXPECT_EQ(response(key)->lastError(), Retra::errHttpStatusCode);
  EXPECT_TRUE(traced(9, "] curl_easy_getinfo: res=0 statusCode=799"));
}

TEST_F(ResultHarvestTest, RefusedConnectionPassesRecvHeaderAndIsConnRefused) {
  const RequestKey key = requestIs(RetraTest::FaultAnswers::refusingUrl("/x"));
  auto watch = Orb::allocate<StateWatch>();
  watch->notifierIs(response(key));
  ASSERT_TRUE(finished(key));
  EXPECT_EQ(response(key)->lastError(), Retra::errConnRefused);
  EXPECT_EQ(response(key)->statusCode(), 0);
  EXPECT_EQ(watch->seen,
            (std::vector<Retra::RequestState>{Retra::stateRecvHeader, Retra::stateFinished}));
}

TEST_F(ResultHarvestTest, SilentServerTimesOutWithinTheConnectTimeout) {
  server_.routeIs("/silent", RetraTest::FaultAnswers::silence(server_));
  // The whole transfer gets at least the connect time-out: 1 second here, not "no limit".
  Retra::Request request = requestOf(server_.url("/silent"));
  request.timeoutConnectIs(1);
  request.timeoutRequestIs(0);
  requestIs(request);
  ASSERT_TRUE(finished(request.requestKey(), 30.0));
  EXPECT_EQ(response(request.requestKey())->lastError(), Retra::errTimeout);
  EXPECT_EQ(response(request.requestKey())->lastErrorMessage(), "");
}

TEST_F(ResultHarvestTest, OtherFailuresWithoutStatusCarryLibcurlsMessage) {
  server_.routeIs("/nothing", [](int, const LoopbackHttpServer::Received&) {});
  const RequestKey key = requestIs(server_.url("/nothing"));
  ASSERT_TRUE(finished(key));
  EXPECT_EQ(response(key)->lastError(), Retra::errCurlOther);
  EXPECT_EQ(response(key)->lastErrorMessage(), curl_easy_strerror(CURLE_GOT_NOTHING));

  // A cut body after a good status is no error: the status alone decides.
  server_.routeIs("/cut", RetraTest::FaultAnswers::cutBody("half", 100));
  const RequestKey cut = requestIs(server_.url("/cut"));
  ASSERT_TRUE(finished(cut));
  EXPECT_EQ(response(cut)->statusCode(), 200);
  EXPECT_EQ(response(cut)->lastError(), Retra::errNone);
  EXPECT_EQ(response(cut)->body(), "half");
}

}  // namespace
