// The engine stopped while a thousand transfers are under way, and the root taken down after it:
// every request and response goes, every connection is closed, a second stop does nothing, and
// no libuv handle is left once the root is gone. Requests withdrawn or changed while their
// transfers run.

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include "Orb/ActivityManager.h"
#include "Retra/engine/ParkedResponseRecovery.h"
#include "dnsr/support/Dnsmasq.h"
#include "engine/support/EngineFixture.h"
#include "support/LoopbackHttpServer.h"

namespace {

using Retra::Response;
using RetraTest::LoopbackHttpServer;

constexpr int kHosts = 50;
constexpr int kTransfers = 1000;
// The engine lets libcurl open at most this many connections at once (and 4 per host).
constexpr size_t kMaxConnections = 100;

class LifeCycleTest : public EngineTest::RootFixture {
 protected:
  void SetUp() override {
    ASSERT_TRUE(dns_.isRunning()) << dns_.log();
    server_.routeIs("/hold", server_.holdUntilClientCloses(closedByClient_));
    rootIs(dns_.server());
  }

  // A request that waits far longer than the test for its answer; every tenth goes to the
  // address literal, the others through the resolver to one of the names.
  [[nodiscard]] Retra::Request holdingRequest(int i) const {
    const std::string path = "/hold?n=" + std::to_string(i);
    const std::string uri = i % 10 == 0 ? server_.url(path)
                                        : "http://h" + std::to_string(i % kHosts) +
                                              ".test:" + std::to_string(server_.port()) + path;
    Retra::Request r = request(uri);
    r.timeoutConnectIs(600);
    r.timeoutRequestIs(600);
    return r;
  }

  DnsrTest::Dnsmasq dns_{DnsrTest::Dnsmasq::namesOn("127.0.0.1", kHosts)};
  std::atomic<size_t> closedByClient_{0};  // outlives the server, whose handlers count here
  LoopbackHttpServer server_;
};

TEST_F(LifeCycleTest, ShutdownWithAThousandTransfersUnderWayLeavesNothingBehind) {
  std::vector<Retra::RequestKey> keys;
  for (int i = 0; i < kTransfers; ++i) {
    const Retra::Request r = holdingRequest(i);
    keys.push_back(r.requestKey());
    requestIs(r);
  }
  const auto allDispatched = [&] {
    for (const Retra::RequestKey& key : keys) {
      Orb::Ptr<Response> r = response(key);
      if (!r || r->requestState() < Retra::stateSendHeader) return false;
    }
    return true;
  };
  ASSERT_TRUE(await(allDispatched, "every request handed to libcurl"));
  ASSERT_TRUE(await([&] { return server_.requests().size() >= kMaxConnections; },
                    "the server holding as many requests as libcurl may send at once"));
  EngineTest::runUntil([] { return false; }, 0.3);
  EXPECT_EQ(server_.connections(), kMaxConnections);
  std::vector<Orb::Ptr<Response>> kept;
  for (const int i : {0, 1, 2, 999}) kept.push_back(response(keys[size_t(i)]));
  for (const Orb::Ptr<Response>& r : kept) {
    ASSERT_TRUE(r);
    EXPECT_FALSE(r->finished()) << describe(r->requestKey());
  }

  engine_->shutdown();

  EXPECT_TRUE(root_->retraRequest()->request().empty());
  EXPECT_TRUE(root_->retraResponse()->response().empty());
  EXPECT_TRUE(engine_->requestSm().empty());
  EXPECT_TRUE(engine_->retraResponseReactor().empty());
  EXPECT_FALSE(engine_->initialized());
  EXPECT_EQ(engine_->curlMultiHandle(), nullptr);
  const auto messages = trace_.messages();
  EXPECT_EQ(std::count(messages.begin(), messages.end(), "Shutting down Retra state machine"), 1);
  // Each transfer was torn down once, without a result: no status, no error, nothing received.
  for (const Orb::Ptr<Response>& r : kept) {
    EXPECT_TRUE(r->finished());
    EXPECT_EQ(r->counter()->numFinish(), 1u);
    EXPECT_EQ(r->statusCode(), 0);
    EXPECT_EQ(r->lastError(), Retra::errNone);
    EXPECT_EQ(r->body(), "");
  }
  // Every connection the engine had opened is closed from its side.
  EXPECT_TRUE(await([&] { return closedByClient_.load() == server_.connections(); },
                    "every held connection closed by the client"))
      << closedByClient_.load() << " of " << server_.connections() << " closed";

  // A second stop finds nothing to do and says nothing.
  trace_.clear();
  engine_->shutdown();
  EXPECT_TRUE(trace_.messages().empty());
  EXPECT_FALSE(engine_->initialized());

  // A stopped engine takes no new request in.
  const Retra::RequestKey late = holdingRequest(kTransfers).requestKey();
  requestIs(holdingRequest(kTransfers));
  EngineTest::runUntil([] { return false; }, 0.3);
  EXPECT_FALSE(response(late));
  EXPECT_EQ(server_.connections(), kMaxConnections);

  // The root goes after the engine has stopped: the loop ends with no handle of the library.
  root_ = nullptr;
  EXPECT_TRUE(EngineTest::runDry()) << Orb::activityManager()->liveHandles() << " handles left";
  EXPECT_TRUE(kept.front()->finished());  // what a host kept stays readable
}

// Withdrawing a request drops its host's resolver request outright, with no count of the other
// requests of that host, and the resolver then forgets the host's record. The next request for
// the host looks it up again, and the new record moves every response of that host to
// stateDispatchReady, whatever its state: a finished response (its state machine gone) stays
// there until a host's ParkedResponseRecovery resets it, and a running transfer is dispatched a
// second time, which libcurl refuses, so it ends with errCurlAddHandle and a partial body. This
// is how the engine is meant to behave; hosts withdraw requests of a shared host name knowing it.
TEST_F(LifeCycleTest, WithdrawingARequestReDispatchesEveryResponseOfItsHostOnTheNextLookUp) {
  const std::string head = "HTTP/1.1 200 OK\r\nContent-Length: 20\r\nConnection: close\r\n\r\n";
  server_.routeIs("/quick", LoopbackHttpServer::answer(200, "quick"));
  server_.routeIs("/slow", server_.drip(head, std::string(20, 's'), std::chrono::milliseconds(50)));
  const std::string base = "http://h0.test:" + std::to_string(server_.port());
  Orb::Ptr<Response> first = fetch(request(base + "/quick?first"));
  ASSERT_EQ(first->statusCode(), 200);
  const Retra::RequestKey slow = requestIs(base + "/slow");
  const Retra::RequestKey held = requestIs(base + "/hold");
  ASSERT_TRUE(await(
      [&] {
        Orb::Ptr<Response> r = response(slow);
        return r && r->requestState() == Retra::stateRecvBody && server_.requests().size() == 3;
      },
      "the slow answer under way and the held request at the server"));

  requestDel(held);
  Orb::Ptr<Response> second = fetch(request(base + "/quick?second"));

  EXPECT_EQ(second->statusCode(), 200);
  EXPECT_EQ(second->lastError(), Retra::errNone);
  EXPECT_EQ(first->requestState(), Retra::stateDispatchReady) << describe(first->requestKey());
  EXPECT_EQ(first->numRequest(), 1u);
  ASSERT_TRUE(await([&] { return response(slow)->finished(); }, "the slow answer"));
  EXPECT_EQ(response(slow)->lastError(), Retra::errCurlAddHandle) << describe(slow);
  EXPECT_LT(response(slow)->body().size(), 20u);

  // A host that keeps a recovery gets the parked response fetched again.
  EXPECT_FALSE(engine_->requestSm(first->requestKey()));
  auto recovery = Retra::ParkedResponseRecovery::ParkedResponseRecoveryIs(engine_, 0.05);
  EXPECT_TRUE(awaitUpdate(first->requestKey(), first->lastUpdateTime()));
  EXPECT_EQ(first->numRequest(), 2u);
  EXPECT_EQ(first->lastError(), Retra::errNone);
  EXPECT_EQ(recovery->resets(), 1u);
}

// A request whose transfer is under way, withdrawn or changed by a client's reactor inside the
// transfer's own callbacks (body, header and state notifications), where libcurl must not see
// its objects released under it (the sanitizer build checks); from outside a transfer the same
// steps simply run at once.
class RunningTransferTest : public EngineTest::RootFixture {
 protected:
  void SetUp() override {
    // The body arrives in several chunks, so that libcurl goes on after the first.
    server_.routeIs("/slow", server_.drip("HTTP/1.1 200 OK\r\nContent-Length: 8\r\n"
                                          "X-One: 1\r\nX-Two: 2\r\n\r\n12",
                                          "345678", std::chrono::milliseconds(5)));
    server_.routeIs("/quick", LoopbackHttpServer::answer(200, "quick"));
    rootIs("");
  }

  // Runs `act` once, on the first notification of the kind it was made for.
  class Reaction : public Response::NotifieeConst {
   public:
    enum class On { body, header, recvHeaderState };
    Reaction(On on, std::function<void()> act) : on_(on), act_(std::move(act)) {}
    void onBody() override { fire(On::body); }
    void onHeader(const Orb::String&) override { fire(On::header); }
    void onRequestState() override {
      if (notifier()->requestState() == Retra::stateRecvHeader) fire(On::recvHeaderState);
    }
    bool fired = false;

   private:
    void fire(On on) {
      if (on != on_ || fired) return;
      fired = true;
      act_();
    }
    On on_;
    std::function<void()> act_;
  };

  // Fetches /slow with a reaction on its response, until the reaction has run and `done` holds.
  void fetchReacting(Reaction::On on, const std::function<void()>& act,
                     const std::function<bool()>& done) {
    key_ = requestIs(server_.url("/slow"));
    auto reaction = Orb::allocate<Reaction>(on, act);
    reaction->notifierIs(response(key_));
    ASSERT_TRUE(await([&] { return reaction->fired && done(); }, "the reaction and its outcome"));
  }

  LoopbackHttpServer server_;
  Retra::RequestKey key_;
};

TEST_F(RunningTransferTest, WithdrawnFromItsBodyNotificationEndsAndOthersGoOn) {
  fetchReacting(
      Reaction::On::body, [&] { requestDel(key_); },
      [&] { return !response(key_) && !engine_->requestSm(key_); });
  EXPECT_EQ(fetch(request(server_.url("/quick")))->body(), "quick");
}

TEST_F(RunningTransferTest, ChangedFromAHeaderNotificationIsFetchedAgain) {
  Retra::Request changed = request(server_.url("/slow"));
  changed.headerIs("X-Changed", "yes");
  fetchReacting(
      Reaction::On::header, [&] { requestIs(changed); },
      [&] { return response(key_) && response(key_)->finished(); });
  EXPECT_EQ(response(key_)->lastError(), Retra::errNone) << describe(key_);
  EXPECT_EQ(response(key_)->body(), "12345678");
  EXPECT_EQ(response(key_)->requestheader("X-Changed"), "yes");
  EXPECT_EQ(response(key_)->numRequest(), 2u);  // the same response, taken in twice
  ASSERT_EQ(server_.requests().size(), 2u);
  EXPECT_NE(server_.requests()[1].find("X-Changed: yes"), std::string::npos);
}

TEST_F(RunningTransferTest, ShutdownFromTheBodyOrTheRootDroppedFromAStateLeavesNothing) {
  fetchReacting(
      Reaction::On::body, [&] { engine_->shutdown(); },
      [&] { return !engine_->initialized() && !response(key_); });
  EXPECT_FALSE(engine_->curlMultiHandle());
  TearDown();

  rootIs("");
  fetchReacting(
      Reaction::On::recvHeaderState,
      [&] {
        engine_->shutdown();
        EngineTest::retain(engine_);
        root_ = nullptr;
        engine_ = nullptr;
      },
      [&] { return !root_; });
}

}  // namespace
