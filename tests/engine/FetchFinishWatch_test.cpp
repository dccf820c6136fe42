// The finish watch over a root's response directory, with real fetches from a loopback server.

#include "Retra/model/FetchFinishWatch.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "engine/support/EngineFixture.h"
#include "support/LoopbackHttpServer.h"

namespace {

using RetraTest::LoopbackHttpServer;
using FetchFinishWatchTest = EngineTest::RootFixture;

TEST_F(FetchFinishWatchTest, EachFinishedFetchIsToldOnceAfterTheEngineAndUnfinishedOnesNever) {
  LoopbackHttpServer server;
  server.routeIs("/ok", LoopbackHttpServer::answer(200, "ok"));
  server.routeIs("/silent", server.silence());
  rootIs("");
  std::vector<std::string> seen;  // "uri status" per finished fetch
  auto watch = Retra::FetchFinishWatch::FetchFinishWatchIs(
      root_->retraResponse(), [&](const Retra::Response& response) {
        seen.push_back(response.uri().str() + " " + std::to_string(response.statusCode()));
      });

  const Retra::RequestKey silent = requestIs(server.url("/silent"));
  const Retra::RequestKey unsupported = requestIs("ftp://127.0.0.1/file");  // ends in intake
  Retra::Request ok = request(server.url("/ok"));
  requestIs(ok);
  ASSERT_TRUE(awaitUpdate(ok.requestKey()));
  // Another setting takes the request in again: a second fetch, told again.
  const Orb::Seconds firstFetch = response(ok.requestKey())->lastUpdateTime();
  ok.timeoutRefreshIs(600);
  requestIs(ok);
  ASSERT_TRUE(awaitUpdate(ok.requestKey(), firstFetch));
  requestDel(silent);  // withdrawn mid-fetch: cut short, unstamped, then deleted
  EXPECT_FALSE(response(silent));

  const std::string okText = ok.uri().str() + " 200";
  EXPECT_EQ(seen, (std::vector<std::string>{"ftp://127.0.0.1/file 0", okText, okText}));

  // A watch joining later tells at once of the responses finished already; a dropped one is
  // silent from then on.
  std::vector<std::string> late;
  auto lateWatch = Retra::FetchFinishWatch::FetchFinishWatchIs(
      root_->retraResponse(),
      [&](const Retra::Response& response) { late.push_back(response.uri().str()); });
  std::sort(late.begin(), late.end());
  EXPECT_EQ(late, (std::vector<std::string>{"ftp://127.0.0.1/file", ok.uri().str()}));
  watch = nullptr;
  requestDel(unsupported);
  const Orb::Seconds secondFetch = response(ok.requestKey())->lastUpdateTime();
  ok.timeoutRefreshIs(300);
  requestIs(ok);
  ASSERT_TRUE(awaitUpdate(ok.requestKey(), secondFetch));
  EXPECT_EQ(seen.size(), 3u);
  EXPECT_EQ(late.size(), 3u);
}

}  // namespace
