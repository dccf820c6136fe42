// Harvest of finished transfers: the states a response passes, the traces of the harvest, and
// the classification of what the end-to-end fetches do not produce.

#include <curl/curl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <string>
#include <vector>

#include "engine/support/TransferFixture.h"
#include "support/FaultAnswers.h"
#include "support/TimeScale.h"

namespace {

using Retra::RequestKey;
using Retra::Response;
using RetraTest::LoopbackHttpServer;
using States = std::vector<Retra::RequestState>;

// Every requestState the response goes through, in order.
class StateWatch : public Response::NotifieeConst {
 public:
  void onRequestState() override { seen.push_back(notifier()->requestState()); }
  States seen;
};

using ResultHarvestTest = EngineTest::TransferFixture;

TEST_F(ResultHarvestTest, AnsweredTransferPassesHeaderAndBodyStatesAndIsStamped) {
  server_.routeIs("/page", LoopbackHttpServer::Answer{200, {}, "hello"});
  const std::string url = server_.url("/page");
  const RequestKey key = requestIs(url);
  auto response = this->response(key);
  auto watch = Orb::allocate<StateWatch>();
  watch->notifierIs(response);
  ASSERT_TRUE(finished(key));

  EXPECT_EQ(response->body(), "hello");
  ASSERT_GE(watch->seen.size(), 3u);
  EXPECT_EQ(States(watch->seen.end() - 3, watch->seen.end()),
            (States{Retra::stateRecvHeader, Retra::stateRecvBody, Retra::stateFinished}));
  EXPECT_EQ(EngineTest::countEndingWith(trace_, 9, "] curl_easy_getinfo: res=0 statusCode=200"),
            1u);
  EXPECT_EQ(EngineTest::countEndingWith(trace_, 2, "] finishing GET " + url + " (status: 200)"),
            1u);
  EXPECT_GT(response->lastUpdateTime(), 0.0);
  EXPECT_FALSE(engine_->requestSm(key));
}

TEST_F(ResultHarvestTest, ErrorIsTheStatusFirstThenLibcurlsResult) {
  server_.routeIs("/odd", LoopbackHttpServer::Answer{799, {}, "odd"});
  server_.routeIs("/nothing", [](int, const LoopbackHttpServer::Received&) {});
  server_.routeIs("/silent", RetraTest::FaultAnswers::silence(server_));
  server_.routeIs("/reset", [](int socket, const LoopbackHttpServer::Received&) {
    const linger abort{1, 0};  // closing now resets the connection
    ::setsockopt(socket, SOL_SOCKET, SO_LINGER, &abort, sizeof abort);
  });
  struct Case {
    std::string url;
    Retra::Error error;
    std::string message;
    States states;
  };
  const std::vector<Case> cases = {
      // None has a status: one above the range is an error and is not stored.
      {server_.url("/odd"), Retra::errHttpStatusCode, "", {}},
      {server_.url("/nothing"), Retra::errCurlOther, curl_easy_strerror(CURLE_GOT_NOTHING), {}},
      // A refused connection passes stateRecvHeader on its way to the end.
      {RetraTest::FaultAnswers::refusingUrl("/x"),
       Retra::errConnRefused,
       "",
       {Retra::stateRecvHeader, Retra::stateFinished}},
      // A reset is seen when it happens, not when the time-out runs out.
      {server_.url("/reset"), Retra::errCurlOther, curl_easy_strerror(CURLE_RECV_ERROR), {}},
      // The whole transfer gets at least the connect time-out: 1 second here, not "no limit".
      {server_.url("/silent"), Retra::errTimeout, "", {}},
  };
  std::vector<Orb::Ptr<StateWatch>> watches;
  for (const Case& c : cases) {
    Retra::Request request = requestOf(c.url);
    request.timeoutConnectIs(RetraTest::scaledSeconds(1));
    request.timeoutRequestIs(0);
    requestIs(request);
    watches.push_back(Orb::allocate<StateWatch>());
    watches.back()->notifierIs(response(request.requestKey()));
  }
  for (size_t i = 0; i < cases.size(); ++i) {
    const Case& c = cases[i];
    SCOPED_TRACE(c.url);
    const RequestKey key(Retra::GET, Orb::String(c.url));
    ASSERT_TRUE(finished(key, 30.0));
    EXPECT_EQ(response(key)->statusCode(), 0);
    EXPECT_EQ(response(key)->lastError(), c.error);
    EXPECT_EQ(response(key)->lastErrorMessage(), c.message);
    if (!c.states.empty()) {
      EXPECT_EQ(watches[i]->seen, c.states);
    }
  }
  EXPECT_EQ(EngineTest::countEndingWith(trace_, 9, "] curl_easy_getinfo: res=0 statusCode=799"),
            1u);
}

}  // namespace
