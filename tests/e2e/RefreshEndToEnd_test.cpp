// A request over time: fetched again when its refresh period runs out, withdrawn while its
// transfer runs, and changed while its transfer runs.

#include <gtest/gtest.h>

#include <chrono>
#include <string>

#include "engine/support/EngineFixture.h"
#include "support/LoopbackHttpServer.h"
#include "support/NginxServer.h"

namespace {

using Retra::Response;
using RetraTest::LoopbackHttpServer;
using RetraTest::NginxServer;

class RefreshFetchTest : public EngineTest::RootFixture {
 protected:
  void SetUp() override { rootIs(""); }
};

TEST_F(RefreshFetchTest, ShortRefreshPeriodFetchesAgainAndAccumulates) {
  NginxServer nginx;
  Retra::Request refreshed = request(nginx.httpUrl("/small.txt"));
  refreshed.timeoutRefreshIs(1);
  const Retra::RequestKey key = refreshed.requestKey();
  requestIs(refreshed);

  ASSERT_TRUE(awaitUpdate(key));
  Orb::Ptr<Response> r = response(key);
  const double firstUpdate = r->lastUpdateTime();
  const uint64_t firstHeaderBytes = r->counter()->bytesHeaderDownload();
  const double firstTotal = r->timer()->total();
  EXPECT_EQ(r->numRequest(), 1u);

  ASSERT_TRUE(awaitUpdate(key, firstUpdate));
  EXPECT_EQ(response(key), r);  // the same entity, fetched again
  EXPECT_EQ(r->lastError(), Retra::errNone);
  EXPECT_EQ(r->statusCode(), 200);
  EXPECT_EQ(r->body(), NginxServer::smallText());  // the body starts afresh
  // Not before the period has run out.
  EXPECT_GT(r->lastUpdateTime(), firstUpdate + 1.0);
  // Every fetch builds a new state machine, which always counts as a change.
  EXPECT_EQ(r->lastChangeTime(), r->lastUpdateTime());
  EXPECT_EQ(r->numRequest(), 2u);
  EXPECT_EQ(r->counter()->numFinish(), 4u);
  EXPECT_EQ(r->counter()->bytesDownload(), 2048u);
  EXPECT_GT(r->counter()->bytesHeaderDownload(), firstHeaderBytes);
  EXPECT_GT(r->timer()->total(), firstTotal);
}

TEST_F(RefreshFetchTest, WithdrawnWhileItsTransferRunsLeavesNothingBehind) {
  LoopbackHttpServer server;
  // A 200 whose body trickles in, a byte every 20 ms, until the client goes away.
  server.routeIs("/trickle", server.drip("HTTP/1.1 200 OK\r\nContent-Length: 100000\r\n\r\n",
                                         std::string(100000, 'x'), std::chrono::milliseconds(20)));
  server.routeIs("/quick", LoopbackHttpServer::answer(200, "quick"));
  const Retra::RequestKey key = requestIs(server.url("/trickle"));
  ASSERT_TRUE(await(
      [&] {
        Orb::Ptr<Response> r = response(key);
        return r && r->body().size() >= 3;
      },
      "a few bytes of the body"));
  Orb::Ptr<Response> withdrawn = response(key);

  requestDel(key);

  EXPECT_FALSE(response(key));
  EXPECT_TRUE(withdrawn->finished());
  const Orb::String bodySoFar = withdrawn->body();
  EngineTest::runUntil([] { return false; }, 0.5);
  EXPECT_EQ(withdrawn->body(), bodySoFar);  // the transfer is gone: nothing more arrives
  EXPECT_FALSE(response(key));

  // The engine carries on with other requests.
  Orb::Ptr<Response> next = fetch(request(server.url("/quick")));
  EXPECT_EQ(next->statusCode(), 200);
  EXPECT_EQ(next->body(), "quick");
}

TEST_F(RefreshFetchTest, RequestChangedWhileItsTransferRunsEndsWithTheNewSettings) {
  LoopbackHttpServer server;
  // The first version gets its headers and a piece of the body, then the server holds on; any
  // other version gets its whole answer at once.
  server.routeIs("/versioned", [&server](int socket, const std::string& head) {
    if (head.find("X-Version: 1") == std::string::npos) {
      LoopbackHttpServer::send(socket, LoopbackHttpServer::answer(200, "version 2"));
      return;
    }
    LoopbackHttpServer::send(socket, "HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\nversion 1");
    server.pauseFor(std::chrono::hours(1));
  });
  Retra::Request first = request(server.url("/versioned"));
  first.headerIs("X-Version", "1");
  const Retra::RequestKey key = first.requestKey();
  requestIs(first);
  ASSERT_TRUE(await(
      [&] {
        Orb::Ptr<Response> r = response(key);
        return r && r->requestState() == Retra::stateRecvBody;
      },
      "the first version's body to start arriving"));
  Orb::Ptr<Response> r = response(key);

  Retra::Request second = first;
  second.headerIs("X-Version", "2");
  requestIs(second);

  const bool ended =
      await([&] { return r->finished() && r->statusCode() == 200 && r->body() == "version 2"; },
            "the second version's transfer to finish");
  EXPECT_TRUE(ended) << describe(key) << ", body '" << r->body() << "'";
  EXPECT_EQ(response(key), r);
  EXPECT_EQ(r->lastError(), Retra::errNone);
  EXPECT_EQ(r->requestheader("X-Version"), "2");
  EXPECT_EQ(r->numRequest(), 2u);
  const auto received = server.requests();
  ASSERT_EQ(received.size(), 2u);
  EXPECT_NE(received[0].find("X-Version: 1"), std::string::npos);
  EXPECT_NE(received[1].find("X-Version: 2"), std::string::npos);
}

}  // namespace
