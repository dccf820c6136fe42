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
  EXPECT_TRUE(root_->initialized());
  EXPECT_TRUE(root_->hasNotificationActive());
  EXPECT_EQ(root_->name(), "retra");
  struct Child {
    Orb::Entity* entity;
    const char* name;
  };
  for (const Child& child : {Child{root_->dnsrRequest().ptr(), "dnsrRequest"},
                             Child{root_->dnsrRecord().ptr(), "dnsrRecord"},
                             Child{root_->retraRequest().ptr(), "retraRequest"},
                             Child{root_->retraResponse().ptr(), "retraResponse"}}) {
    SCOPED_TRACE(child.name);
    ASSERT_NE(child.entity, nullptr);
    EXPECT_EQ(child.entity->name(), child.name);
    EXPECT_EQ(child.entity->parent(), root_.ptr());
    EXPECT_EQ(child.entity->parentAttrName(), child.name);
    EXPECT_EQ(root_->entity(child.name).ptr(), child.entity);
    EXPECT_EQ(child.entity->fullName(), std::string("retra/") + child.name);
  }

  auto dnsrSm = root_->dnsrSm();
  ASSERT_TRUE(dnsrSm);
  EXPECT_EQ(dnsrSm->records(), root_->dnsrRecord());
  EXPECT_EQ(dnsrSm->requests(), root_->dnsrRequest());
  EXPECT_TRUE(dnsrSm->hasNotificationActive());

  auto engine = root_->retraSm();
  ASSERT_TRUE(engine);
  EXPECT_TRUE(engine->initialized());
  EXPECT_TRUE(engine->hasNotificationActive());
  EXPECT_NE(engine->curlMultiHandle(), nullptr);
  EXPECT_EQ(engine->retraRequest()->directory(), root_->retraRequest());
  EXPECT_EQ(engine->retraResponse()->directory(), root_->retraResponse());
  EXPECT_EQ(engine->dnsrRequest(), root_->dnsrRequest());
  EXPECT_EQ(engine->dnsrRecord()->directory(), root_->dnsrRecord());
  // One clock, the activity manager's, serves both.
  EXPECT_EQ(engine->refreshClock()->clock(), Orb::activityManager()->clock());
  EXPECT_EQ(engine->timeoutClock()->clock(), engine->refreshClock()->clock());
  EXPECT_NE(static_cast<const void*>(engine->refreshClock().ptr()),
            static_cast<const void*>(engine->timeoutClock().ptr()));
  EXPECT_TRUE(trace_.has(2, "handleInitialized"));
}

TEST_F(RootTest, DirectorySetterKeepsTheSameNameAndReplacesAnother) {
  auto requests = root_->retraRequest();
  EXPECT_EQ(root_->retraRequestIs("retraRequest"), requests);

  auto watch = Orb::allocate<RootWatch>();
  watch->notifierIs(root_);
  auto other = root_->retraRequestIs("otherRequest");
  EXPECT_NE(other, requests);
  EXPECT_EQ(root_->retraRequest(), other);
  EXPECT_EQ(other->parent(), root_.ptr());
  EXPECT_EQ(requests->parent(), nullptr);
  EXPECT_FALSE(root_->entity("retraRequest"));
  EXPECT_EQ(watch->seen, std::vector<std::string>{"retraRequest"});
  // The engine keeps the directory it was built over.
  EXPECT_EQ(root_->retraSm()->retraRequest()->directory(), requests);

  auto removed = root_->retraResponseDel();
  ASSERT_TRUE(removed);
  EXPECT_EQ(removed->parent(), nullptr);
  EXPECT_FALSE(root_->retraResponse());
  EXPECT_FALSE(root_->retraResponseDel());
}

TEST_F(RootTest, RetraSmIsBuildsAnotherEngineOnlyForOtherObjects) {
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
  EXPECT_EQ(root_->retraSm(), replacement);
  EXPECT_EQ(replacement->refreshClock()->clock(), ownClock);
  EXPECT_TRUE(replacement->hasNotificationActive());
  EXPECT_FALSE(engine->hasNotificationActive());
  // The old engine no longer takes requests in.
  requestIs("http://127.0.0.1:1/");
  EXPECT_TRUE(replacement->requestSm(Retra::RequestKey(Retra::GET, "http://127.0.0.1:1/")));
  EXPECT_TRUE(engine->requestSm().empty());
  engine->shutdown();
}

TEST_F(RootTest, DnsrSmIsBuildsAnotherResolverOnlyForOtherDirectories) {
  auto resolver = root_->dnsrSm();
  EXPECT_EQ(root_->dnsrSmIs(root_->dnsrRecord(), root_->dnsrRequest()), resolver);
  auto records = Orb::allocate<Dnsr::ResolutionRecordDir>("records");
  auto replacement = root_->dnsrSmIs(records, root_->dnsrRequest());
  EXPECT_NE(replacement, resolver);
  EXPECT_EQ(replacement->records(), records);
  EXPECT_TRUE(replacement->hasNotificationActive());
  EXPECT_FALSE(resolver->hasNotificationActive());
}

TEST_F(RootTest, DestructionRemovesEverythingInOrder) {
  auto engine = root_->retraSm();
  auto resolver = root_->dnsrSm();
  auto requests = root_->retraRequest();
  auto records = root_->dnsrRecord();
  auto watch = Orb::allocate<RootWatch>();
  watch->isWeakReferenceIs(true);
  watch->notifierIs(root_);
  engine->shutdown();

  root_ = nullptr;
  EXPECT_EQ(watch->seen, (std::vector<std::string>{"dnsrSm", "dnsrRecord", "dnsrRequest", "retraSm",
                                                   "retraRequest", "retraResponse"}));
  EXPECT_EQ(watch->notifierPtr(), nullptr);
  EXPECT_EQ(requests->parent(), nullptr);
  EXPECT_EQ(records->parent(), nullptr);
  EXPECT_FALSE(resolver->hasNotificationActive());
  EXPECT_FALSE(engine->hasNotificationActive());
  EXPECT_FALSE(engine->initialized());
}

}  // namespace
