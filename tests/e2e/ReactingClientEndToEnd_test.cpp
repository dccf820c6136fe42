// Clients whose reactors act inside a transfer: from the body, header and state notifications
// that libcurl's callbacks raise, a client withdraws or changes its request, shuts the engine
// down or drops its root. libcurl must not see its objects released under it (the sanitizer
// build checks), and the client sees what it would see had it acted outside a transfer.

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include "engine/support/EngineFixture.h"
#include "support/LoopbackHttpServer.h"

namespace {

using Retra::Response;
using RetraTest::LoopbackHttpServer;

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

class ReactingClientTest : public EngineTest::RootFixture {
 protected:
  void SetUp() override {
    // The body arrives in several chunks, so that libcurl goes on after the first.
    server_.routeIs("/slow", server_.drip("HTTP/1.1 200 OK\r\nContent-Length: 8\r\n"
                                          "X-One: 1\r\nX-Two: 2\r\n\r\n12",
                                          "345678", std::chrono::milliseconds(5)));
    server_.routeIs("/page", LoopbackHttpServer::answer(200, "page"));
    rootIs("");
  }
  // Fetches /slow with `reaction` on its response, until `done` holds.
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

TEST_F(ReactingClientTest, WithdrawingFromTheBodyEndsTheTransferAndOthersGoOn) {
  fetchReacting(
      Reaction::On::body, [&] { requestDel(key_); },
      [&] { return !response(key_) && !engine_->requestSm(key_); });
  EXPECT_EQ(fetch(request(server_.url("/page")))->body(), "page");
}

TEST_F(ReactingClientTest, ChangingTheRequestFromAHeaderFetchesItAgain) {
  Retra::Request changed = request(server_.url("/slow"));
  changed.headerIs("X-Changed", "yes");
  fetchReacting(
      Reaction::On::header, [&] { requestIs(changed); },
      [&] { return response(key_) && response(key_)->finished(); });
  const Orb::Ptr<Response> r = response(key_);
  EXPECT_EQ(r->lastError(), Retra::errNone) << describe(key_);
  EXPECT_EQ(r->body(), "12345678");
  EXPECT_EQ(r->requestheader("X-Changed"), "yes");
  EXPECT_EQ(server_.requests().size(), 2u);
}

TEST_F(ReactingClientTest, ShutdownFromTheBodyOrReleasingTheRootFromAStateLeavesNothing) {
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
