#include "engine/support/EngineFixture.h"

#include <vector>

#include "Orb/ActivityManager.h"
#include "support/TimeScale.h"

namespace EngineTest {

void retain(const Orb::Ptr<Retra::RetraSm>& engine) {
  static auto* engines = new std::vector<Orb::Ptr<Retra::RetraSm>>;  // reachable until exit
  engines->push_back(engine);
}

bool runUntil(const std::function<bool()>& done, Orb::Seconds timeout) {
  return Orb::activityManager()->runUntil(done, timeout * RetraTest::timeScale());
}

bool runDry() {
  Orb::ActivityManager* manager = Orb::activityManager();
  return manager->runUntil([manager] { return manager->liveHandles() == 0; }, 5.0 * RetraTest::timeScale());
}

void RootFixture::TearDown() {
  if (root_ && root_->retraSm()) engine_ = root_->retraSm();
  if (engine_) {
    engine_->shutdown();
    retain(engine_);
    engine_ = nullptr;
  }
  root_ = nullptr;
  ::unsetenv("DNSR_SERVERS");
  EXPECT_TRUE(runDry()) << Orb::activityManager()->liveHandles() << " libuv handles left";
}

void RootFixture::rootIs(const std::string& servers) {
  ::setenv("DNSR_SERVERS", servers.c_str(), 1);
  root_ = Orb::allocate<Retra::Root>("retra");
  engine_ = root_->retraSm();
}

Retra::RequestKey RootFixture::requestIs(const std::string& uri, Retra::Method method) {
  const Retra::RequestKey key(method, Orb::String(uri));
  requestIs(Retra::Request(key));
  return key;
}

void RootFixture::requestIs(const Retra::Request& request) {
  root_->retraRequest()->requestIs(request);
}

void RootFixture::requestDel(const Retra::RequestKey& key) {
  (void)root_->retraRequest()->requestDel(key);
}

Orb::Ptr<Retra::Response> RootFixture::response(const std::string& uri,
                                                Retra::Method method) const {
  return response(Retra::RequestKey(method, Orb::String(uri)));
}

Orb::Ptr<Retra::Response> RootFixture::response(const Retra::RequestKey& key) const {
  return root_->retraResponse()->response(key);
}

unsigned RootFixture::resolverRequest(const std::string& host) const {
  return root_->dnsrRequest()->request(Orb::String(host));
}

}  // namespace EngineTest
