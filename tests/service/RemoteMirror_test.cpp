// A host on the client library gets what an in-process host gets: the service and the client in
// two processes, the mirrored response compared attribute by attribute with the one a Root in
// this process fetched from the same server; a watcher never sees a fetch finished before the
// rest of it; a growing body crosses the socket once, not once per piece.

#include <gtest/gtest.h>

#include <string>

#include "Orb/ActivityManager.h"
#include "Retra/remote/RemoteRoot.h"
#include "engine/support/EngineFixture.h"
#include "service/support/ServiceProcess.h"
#include "support/LoopbackHttpServer.h"

namespace {

using Retra::Response;
using RetraTest::LoopbackHttpServer;

// Attributes that differ between two fetches of the same URL: when, and how fast.
bool differsByFetch(const std::string& name) {
  return name == "lastUpdateTime" || name == "lastChangeTime" || name == "speedDownload" ||
         name == "speedUpload";
}

// Names the attributes of `a` and `b` (and of their counters) that differ.
template <class E>
std::string differences(const E& a, const E& b) {
  std::string found;
  auto same = [&](const char* name, const auto& x, const auto& y) {
    if (!differsByFetch(name) && !(x == y)) found += std::string(name) + " ";
  };
  E::forEachAttribute(Orb::AttributeVisitor{
      [&](Orb::AttributeId, const char* name, auto get, auto) { same(name, get(a), get(b)); },
      [&](Orb::AttributeId, const char* name, auto get, auto, auto) { same(name, get(a), get(b)); },
      Orb::ignoreAttribute});
  return found;
}

// Records, when a mirrored response reaches stateFinished, what the rest of it says then.
class FinishProbe : public Response::NotifieeConst {
 public:
  void onRequestState() override {
    const Response* r = notifierPtr();
    if (!r->finished()) return;
    seenStatus = r->statusCode();
    seenBodySize = r->body().size();
    seenUpdated = r->lastUpdateTime() > 0;
    seenFinishes = r->counter() ? r->counter()->numFinish() : 0;
  }
  uint16_t seenStatus = 0;
  size_t seenBodySize = 0;
  bool seenUpdated = false;
  uint32_t seenFinishes = 0;
};

class RemoteMirrorTest : public EngineTest::RootFixture {
 protected:
  void SetUp() override {
    rootIs("");
    remote_ = Orb::allocate<Retra::RemoteRoot>("remote", options());
    ASSERT_TRUE(await([&] { return remote_->synced(); }, "the mirror's first sync"))
        << service_.log();
  }
  void TearDown() override {
    remote_->close();
    RootFixture::TearDown();
  }
  Retra::RemoteRoot::Options options() const {
    Retra::RemoteRoot::Options o;
    o.socketPath = service_.socketPath();
    o.reconnect = false;
    return o;
  }
  Orb::Ptr<Response> remoteFetch(const Retra::Request& request, FinishProbe* probe = nullptr) {
    remote_->retraRequest()->requestIs(request);
    Orb::Ptr<Response> mirror;
    const bool appeared = await(
        [&] { return bool(mirror = remote_->retraResponse()->response(request.requestKey())); },
        "the mirrored response");
    if (appeared && probe) probe->notifierIs(mirror);
    (void)await([&] { return mirror && mirror->finished() && mirror->lastUpdateTime() > 0; },
                "the mirrored fetch");
    return mirror;
  }

  ServiceTest::ServiceProcess service_;
  LoopbackHttpServer server_;
  Orb::Ptr<Retra::RemoteRoot> remote_;
};

TEST_F(RemoteMirrorTest, MirrorEqualsWhatAnInProcessHostGets) {
  server_.routeIs("/page", LoopbackHttpServer::answer(200, std::string(70000, 'p'),
                                                      "Content-Type: text/plain\r\nX-Test: 1\r\n"));
  Retra::Request request(Retra::RequestKey(Retra::GET, server_.url("/page")));
  request.headerIs("Accept", "text/plain");
  auto local = fetch(request);
  auto probe = Orb::allocate<FinishProbe>();
  auto mirror = remoteFetch(request, probe.ptr());
  ASSERT_TRUE(local && mirror);
  EXPECT_EQ(differences(*local, *mirror), "");
  ASSERT_TRUE(local->counter() && mirror->counter() && mirror->timer());
  EXPECT_EQ(differences(*local->counter(), *mirror->counter()), "");
  EXPECT_GT(mirror->timer()->total(), 0.0);
  EXPECT_EQ(mirror->body().size(), 70000u);

  // At stateFinished the mirror already holds the whole fetch.
  EXPECT_EQ(probe->seenStatus, 200);
  EXPECT_EQ(probe->seenBodySize, 70000u);
  EXPECT_TRUE(probe->seenUpdated);
  EXPECT_EQ(probe->seenFinishes, local->counter()->numFinish());

  // Withdrawn through the client: the mirror loses the response as the service does.
  remote_->retraRequest()->requestDel(request.requestKey());
  EXPECT_TRUE(await([&] { return remote_->retraResponse()->response().empty(); }, "removal"));
}

TEST_F(RemoteMirrorTest, AGrowingBodyCrossesTheSocketOnce) {
  constexpr size_t kBody = 4u << 20;
  server_.routeIs("/big", LoopbackHttpServer::answer(200, std::string(kBody, 'b')));
  const uint64_t before = service_.bytesWritten();
  auto mirror = remoteFetch(Retra::Request(Retra::RequestKey(Retra::GET, server_.url("/big"))));
  ASSERT_TRUE(mirror);
  EXPECT_EQ(mirror->body().size(), kBody);
  EXPECT_EQ(mirror->body().view().find_first_not_of('b'), std::string_view::npos);
  // Sent as appended pieces: about the body's size, where whole bodies would be half a GiB.
  EXPECT_LT(service_.bytesWritten() - before, 2 * kBody);
}

TEST_F(RemoteMirrorTest, ReconnectsAfterARestartAndResynchronises) {
  Retra::RemoteRoot::Options o = options();
  o.reconnect = true;
  remote_->close();
  remote_ = Orb::allocate<Retra::RemoteRoot>("remote", o);
  server_.routeIs("/a", LoopbackHttpServer::answer(200, "a"));
  auto kept = remoteFetch(Retra::Request(Retra::RequestKey(Retra::GET, server_.url("/a"))));
  ASSERT_TRUE(kept);
  // A response the restarted service no longer has leaves the mirror at the resync.
  remote_->retraResponse()->responseIs(Retra::RequestKey(Retra::GET, "http://127.0.0.1:1/gone"));
  service_.killAndRestart();
  ASSERT_TRUE(await([&] { return !remote_->connected(); }, "the disconnection"));
  ASSERT_TRUE(await([&] { return remote_->synced(); }, "the resync")) << service_.log();
  EXPECT_EQ(remote_->retraResponse()->response().size(), 1u);
  EXPECT_TRUE(await(
      [&] {
        return remote_->retraResponse()->response(kept->requestKey()) &&
               remote_->retraResponse()->response(kept->requestKey())->finished();
      },
      "the stored request fetched again"));
}

}  // namespace
