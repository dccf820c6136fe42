// A response parked by a change of its host's resolver record: the engine makes every response
// of the host ready for dispatch, a finished one has no state machine left to dispatch it, and
// the recovery a host keeps beside its root resets it so that it is fetched again.

#include "Retra/engine/ParkedResponseRecovery.h"

#include <gtest/gtest.h>

#include <string>

#include "Dnsr/ResolutionError.h"
#include "engine/support/EngineFixture.h"
#include "support/LoopbackHttpServer.h"

namespace {

using RetraTest::LoopbackHttpServer;

class ParkedResponseRecoveryTest : public EngineTest::RootFixture {
 protected:
  void SetUp() override {
    server_.routeIs("/page", LoopbackHttpServer::answer(200, "page"));
    rootIs("");
  }
  LoopbackHttpServer server_;
};

TEST_F(ParkedResponseRecoveryTest, ResetsAResponseParkedPastItsGraceAndItIsFetchedAgain) {
  // "localhost" comes from the hosts file through the resolver.
  const Retra::RequestKey key =
      requestIs("http://localhost:" + std::to_string(server_.port()) + "/page");
  ASSERT_TRUE(awaitUpdate(key)) << describe(key);
  const Orb::Seconds firstFetch = response(key)->lastUpdateTime();

  // The resolver reports a failed refresh of the valid record, and its recovery.
  const auto record = root_->dnsrRecord()->record("localhost");
  ASSERT_TRUE(record && record->valid());
  record->lastErrorIs(Dnsr::errTimeout);
  record->lastErrorIs(Dnsr::errNone);
  EXPECT_EQ(response(key)->requestState(), Retra::stateDispatchReady);
  EXPECT_FALSE(engine_->requestSm(key));

  auto recovery = Retra::ParkedResponseRecovery::ParkedResponseRecoveryIs(engine_, 0.05);
  ASSERT_TRUE(awaitUpdate(key, firstFetch)) << describe(key);
  EXPECT_EQ(response(key)->lastError(), Retra::errNone);
  EXPECT_EQ(recovery->resets(), 1u);
  EXPECT_EQ(server_.requests().size(), 2u);
  recovery = nullptr;
}

}  // namespace
