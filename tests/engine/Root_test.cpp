// The library root: wiring on creation, the setters that keep or replace what they hold, and
// the order of teardown.

#include "Retra/engine/Root.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Orb/ActivityManager.h"
#include "dnsr/support/Dnsmasq.h"
#include "engine/support/EngineFixture.h"

namespace {

// Notes the root's attribute callbacks in order; weak, so the root can go while it watches.
class RootWatch : public Retra::Root::NotifieeConst {
 public:
  void onDnsrSm() override { seen.push_back("dnsrSm"); }
  void onDnsrRecord() override { seen.push_back("dnsrRecord"); }
  void onDnsrRequest() override { seen.push_back("dnsrRequest"); }
  void onRetraSm() override { seen.push_back("retraSm"); }
  void onRetraRequest() override { seen.push_back("retraRequest"); }
  void onRetraResponse() override { seen.push_back("retraResponse"); }
  std::vector<std::string> seen;
};

class RootTest : public EngineTest::RootFixture {
 protected:
  void SetUp() override { rootIs(silent_.server()); }

  DnsrTest::SilentServer silent_;
};

TEST_F(RootTest, CreationWiresDirectoriesResolverAndEngine) {
  for (const char* name : {"dnsrRequest", "dnsrRecord", "retraRequest", "retraResponse"}) {
    SCOPED_TRACE(name);
    const auto child = root_->entity(name);
    ASSERT_TRUE(child);
    EXPECT_EQ(child->parent(), root_.ptr());
    EXPECT_EQ(child->fullName(), std::string("retra/") + name);
  }
  // Everything else the engine and the resolver are built over shows in every fetch.
  auto engine = root_->retraSm();
  ASSERT_TRUE(engine && root_->dnsrSm());
  EXPECT_TRUE(engine->initialized());
  // Two clock observers on one clock, the activity manager's.
  EXPECT_EQ(engine->refreshClock()->clock(), Orb::activityManager()->clock());
  EXPECT_EQ(engine->timeoutClock()->clock(), engine->refreshClock()->clock());
  EXPECT_NE(static_cast<const void*>(engine->refreshClock().ptr()),
            static_cast<const void*>(engine->timeoutClock().ptr()));
}

TEST_F(RootTest, DirectorySetterKeepsTheSameNameAndReplacesAnother) {
  auto requests = root_->retraRequest();
  EXPECT_EQ(root_->retraRequestIs("retraRequest"), requests);

  auto watch = Orb::allocate<RootWatch>();
  watch->notifierIs(root_);
  auto other = root_->retraRequestIs("otherRequest");
  EXPECT_NE(other, requests);
  EXPECT_EQ(other->parent(), root_.ptr());
  EXPECT_EQ(requests->parent(), nullptr);
  EXPECT_FALSE(root_->entity("retraRequest"));
  EXPECT_EQ(watch->seen, std::vector<std::string>{"retraRequest"});
  // The engine keeps the directory it was built over.
  EXPECT_EQ(root_->retraSm()->retraRequest()->directory(), requests);

  auto removed = root_->retraResponseDel();
  ASSERT_TRUE(removed);
  EXPECT_EQ(removed->parent(), nullptr);
  EXPECT_FALSE(root_->retraResponse() || root_->retraResponseDel());
}

TEST_F(RootTest, EngineAndResolverAreRebuiltOnlyForOtherObjects) {
  auto engine = root_->retraSm();
  auto clock = Orb::activityManager()->clock();
  EXPECT_EQ(root_->retraSmIs(root_->retraRequest(), root_->retraResponse(), root_->dnsrRequest(),
                             root_->dnsrRecord(), clock, clock),
            engine);
  auto ownClock = Orb::allocate<Orb::Clock>("refresh");
  auto replacement = root_->retraSmIs(root_->retraRequest(), root_->retraResponse(),
                                      root_->dnsrRequest(), root_->dnsrRecord(), ownClock, clock);
  EngineTest::retain(engine);
  EXPECT_NE(replacement, engine);
  EXPECT_EQ(replacement->refreshClock()->clock(), ownClock);
  EXPECT_FALSE(engine->hasNotificationActive());
  // The old engine no longer takes requests in.
  const Retra::RequestKey key = requestIs("http://127.0.0.1:1/");
  EXPECT_TRUE(replacement->requestSm(key));
  EXPECT_TRUE(engine->requestSm().empty());
  engine->shutdown();

  auto resolver = root_->dnsrSm();
  EXPECT_EQ(root_->dnsrSmIs(root_->dnsrRecord(), root_->dnsrRequest()), resolver);
  auto records = Orb::allocate<Dnsr::ResolutionRecordDir>("records");
  auto newResolver = root_->dnsrSmIs(records, root_->dnsrRequest());
  EXPECT_NE(newResolver, resolver);
  EXPECT_EQ(newResolver->records(), records);
  EXPECT_TRUE(newResolver->hasNotificationActive());
  EXPECT_FALSE(resolver->hasNotificationActive());
}

TEST_F(RootTest, DestructionRemovesEverythingInOrder) {
  auto engine = root_->retraSm();
  auto resolver = root_->dnsrSm();
  auto requests = root_->retraRequest();
  auto watch = Orb::allocate<RootWatch>();
  watch->isWeakReferenceIs(true);
  watch->notifierIs(root_);
  engine->shutdown();

  root_ = nullptr;
  EXPECT_EQ(watch->seen, (std::vector<std::string>{"dnsrSm", "dnsrRecord", "dnsrRequest", "retraSm",
                                                   "retraRequest", "retraResponse"}));
  EXPECT_EQ(watch->notifierPtr(), nullptr);
  EXPECT_EQ(requests->parent(), nullptr);
  EXPECT_FALSE(resolver->hasNotificationActive() || engine->hasNotificationActive());
}

}  // namespace
