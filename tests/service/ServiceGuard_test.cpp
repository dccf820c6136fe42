// The service keeps what it acknowledged and nothing else: kill -9 in the middle of a thousand
// writes, ephemeral requests of a closed or killed client, bad frames and over-limit writes, a
// client that stops reading, and clients of another uid.

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <functional>
#include <set>
#include <string>

#include "Orb/ActivityManager.h"
#include "Orb/AttrLog.h"
#include "Retra/remote/RemoteRoot.h"
#include "engine/support/EngineFixture.h"
#include "service/support/ServiceProcess.h"
#include "support/LoopbackHttpServer.h"

namespace {

using Retra::RequestKey;
using Retra::Wire::MessageType;
using Retra::Wire::ReplyCode;
using RetraTest::LoopbackHttpServer;
using ServiceTest::RawClient;

class ServiceGuardTest : public EngineTest::RootFixture {
 protected:
  Orb::Ptr<Retra::RemoteRoot> connect(ServiceTest::ServiceProcess& service, bool ephemeral) {
    Retra::RemoteRoot::Options o;
    o.socketPath = service.socketPath();
    o.ephemeral = ephemeral;
    o.reconnect = false;
    auto remote = Orb::allocate<Retra::RemoteRoot>("remote", o);
    EXPECT_TRUE(await([&] { return remote->synced(); }, "the connection")) << service.log();
    return remote;
  }
  Retra::Request request(const std::string& path, uint32_t refresh = 3600) {
    Retra::Request r(RequestKey(Retra::GET, server_.url(path)));
    r.timeoutRefreshIs(refresh);
    return r;
  }
  std::set<std::string> listed(ServiceTest::ServiceProcess& service) {
    RawClient client(service.socketPath());
    EXPECT_TRUE(client.handshake());
    client.sendFrame(Retra::Wire::encodeList(1, false));
    EXPECT_TRUE(client.nextReply());
    std::set<std::string> uris;
    for (const auto& item : client.listing) uris.insert(item.request.uri().str());
    return uris;
  }

  LoopbackHttpServer server_;
};

TEST_F(ServiceGuardTest, KillNineLosesNoAcknowledgedWriteAndBringsBackNoWithdrawnOne) {
  ServiceTest::ServiceProcess service;
  server_.routeIs("/r", LoopbackHttpServer::answer(200, "r"));
  auto remote = connect(service, false);
  std::set<std::string> kept, withdrawn;
  size_t acknowledgedWrites = 0;
  remote->writeHandlerIs([&](const RequestKey& key, ReplyCode code, const std::string&) {
    if (code != ReplyCode::ok) return;
    // An acknowledged write is kept; every tenth is withdrawn, and once that is answered, gone.
    const bool present = remote->retraRequest()->request().contains(key);
    if (!present) {
      withdrawn.insert(key.uri().str());
    } else if (++acknowledgedWrites % 10 == 0) {
      remote->retraRequest()->requestDel(key);  // kept or not until its withdrawal is answered
    } else {
      kept.insert(key.uri().str());
    }
  });
  // Written a hundred per loop turn, so withdrawals interleave with the writes; killed midway.
  int written = 0;
  ASSERT_TRUE(await(
      [&] {
        for (int i = 0; i < 100 && written < 1000; ++i, ++written) {
          remote->retraRequest()->requestIs(request("/r?n=" + std::to_string(written)));
        }
        return remote->acknowledged() >= 500 && !withdrawn.empty();
      },
      "the first acknowledgements"));
  service.killAndRestart();
  (void)await([&] { return !remote->connected(); }, "the disconnection");
  const std::set<std::string> stored = listed(service);
  for (const std::string& uri : kept) EXPECT_TRUE(stored.contains(uri)) << uri << " lost";
  // What was not acknowledged may or may not be there; a withdrawal acknowledged is never undone.
  for (const std::string& uri : withdrawn) EXPECT_FALSE(stored.contains(uri)) << uri << " is back";
  EXPECT_GE(kept.size(), 300u);
  EXPECT_FALSE(withdrawn.empty());
  // Restored requests are fetched.
  auto watcher = connect(service, false);
  EXPECT_TRUE(await(
      [&] {
        size_t done = 0;
        for (const auto& [key, r] : watcher->retraResponse()->response()) done += r->finished();
        return done == stored.size();
      },
      "every restored request fetched"));
}

TEST_F(ServiceGuardTest, EphemeralRequestsLeaveWithTheirConnectionAndSlowReadersAreCut) {
  ServiceTest::ServiceProcess service({"--max-queue", "262144"});
  server_.routeIs("/e", LoopbackHttpServer::answer(200, "e"));
  server_.routeIs("/big", LoopbackHttpServer::answer(200, std::string(1 << 20, 'x')));
  auto watcher = connect(service, false);
  {
    auto ephemeral = connect(service, true);
    ephemeral->retraRequest()->requestIs(request("/e"));
    ASSERT_TRUE(await([&] { return watcher->retraResponse()->response().size() == 1; }, "it"));
    ephemeral->close();
  }
  EXPECT_TRUE(await([&] { return watcher->retraResponse()->response().empty(); }, "withdrawal"));
  EXPECT_TRUE(listed(service).empty());

  // A client process killed with its watch open and an ephemeral request written: the request
  // goes with it, the service goes on.
  int ready[2];
  ASSERT_EQ(::pipe(ready), 0);
  const pid_t client = ::fork();
  if (client == 0) {
    RawClient raw(service.socketPath());
    raw.handshake();
    raw.sendFrame(Retra::Wire::encodeWatch(1, true, RequestKey()));
    raw.sendFrame(Retra::Wire::encodeWriteRequest(2, true, request("/e")));
    raw.nextReply();  // the watch's
    raw.nextReply();  // the write's
    (void)!::write(ready[1], "r", 1);
    ::pause();
  }
  char byte = 0;
  ASSERT_EQ(::read(ready[0], &byte, 1), 1);
  ::close(ready[0]);
  ::close(ready[1]);
  ASSERT_TRUE(await([&] { return watcher->retraResponse()->response().size() == 1; }, "it"));
  ::kill(client, SIGKILL);
  ::waitpid(client, nullptr, 0);
  EXPECT_TRUE(await([&] { return watcher->retraResponse()->response().empty(); }, "withdrawal"));
  EXPECT_TRUE(listed(service).empty());

  // A client that watches and never reads is cut off; the watcher beside it is served.
  RawClient stalled(service.socketPath());
  ASSERT_TRUE(stalled.handshake());
  stalled.sendFrame(Retra::Wire::encodeWatch(1, true, RequestKey()));
  auto fetches = [&] {
    auto r = watcher->retraResponse()->response(RequestKey(Retra::GET, server_.url("/big")));
    return r && r->counter() ? r->counter()->numFinish() : 0u;
  };
  watcher->retraRequest()->requestIs(request("/big", 1));
  EXPECT_TRUE(await(
      [&] { return service.log().find("outgoing queue over 262144 bytes") != std::string::npos; },
      "the stalled client cut off"))
      << service.log() << fetches();
  const uint32_t before = fetches();
  EXPECT_TRUE(await([&] { return fetches() > before + 1 && watcher->connected(); },
                    "the watcher served after the cut"))
      << service.log() << before << " " << fetches() << " " << watcher->connectError();
}

TEST_F(ServiceGuardTest, BadInputIsAnsweredAndChangesNothingStored) {
  ServiceTest::ServiceProcess service({"--max-requests", "2"});
  {
    RawClient noHello(service.socketPath());
    noHello.sendFrame(Retra::Wire::encodePing(1));
    auto reply = noHello.next();
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->code, ReplyCode::handshake);
    EXPECT_FALSE(noHello.next(2)) << "closed after a refused handshake";
  }
  RawClient client(service.socketPath());
  ASSERT_TRUE(client.handshake());
  auto replyTo = [&](const std::string& payload) {
    client.sendFrame(payload);
    auto reply = client.nextReply();
    return reply ? reply->code : ReplyCode::unavailable;
  };
  Orb::AttrLogOut unknown;
  unknown.writeEnum(99);
  EXPECT_EQ(replyTo(unknown.bytes()), ReplyCode::unknownMessage);
  const std::string write = Retra::Wire::encodeWriteRequest(7, false, request("/a"));
  EXPECT_EQ(replyTo(write.substr(0, write.size() - 3)), ReplyCode::malformed);
  EXPECT_EQ(replyTo(Retra::Wire::encodeWriteRequest(8, false, Retra::Request())),
            ReplyCode::invalidKey);
  Retra::Request relative = request("/a");
  relative.outputPathIs("out.html");
  EXPECT_EQ(replyTo(Retra::Wire::encodeWriteRequest(9, false, relative)),
            ReplyCode::outputPathRefused);
  for (const char* path : {"/a", "/b"}) {
    EXPECT_EQ(replyTo(Retra::Wire::encodeWriteRequest(10, false, request(path))), ReplyCode::ok);
  }
  EXPECT_EQ(replyTo(Retra::Wire::encodeWriteRequest(11, false, request("/c"))),
            ReplyCode::tooManyRequests);
  EXPECT_EQ(replyTo(Retra::Wire::encodeKeyCommand(MessageType::withdraw, 12,
                                                  RequestKey(Retra::GET, server_.url("/z")))),
            ReplyCode::notFound);
  // An over-long frame is refused and the connection closed; the service goes on.
  client.sendBytes(std::string("\x01\x10\x00\x00", 4));
  auto refusal = client.nextReply();
  ASSERT_TRUE(refusal);
  EXPECT_EQ(refusal->code, ReplyCode::oversize);
  EXPECT_FALSE(client.next(2));
  EXPECT_EQ(listed(service), (std::set<std::string>{server_.url("/a"), server_.url("/b")}));
}

// Runs `body` in a child process as uid `uid` and returns its exit status.
int asUid(uid_t uid, const std::function<int()>& body) {
  const pid_t child = ::fork();
  if (child == 0) {
    if (::setresgid(uid, uid, uid) != 0 || ::setresuid(uid, uid, uid) != 0) ::_exit(100);
    ::_exit(body());
  }
  int status = 0;
  ::waitpid(child, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 101;
}

// A plain test: the forked child must hold no thread (such as a server's) it cannot account for.
TEST(ServiceUidTest, AnotherUidSeesNothingOfTheFirstAndOutputStaysInItsDirectory) {
  if (::geteuid() != 0) GTEST_SKIP() << "needs root to act as another uid";
  RetraTest::TempDir output("retrad-output");
  ServiceTest::ServiceProcess service({"--system", "--output-dir", output.path("files")});
  // The socket's directory is the test's own; the socket itself is open to every user.
  const std::string socketDir = service.socketPath().substr(0, service.socketPath().rfind('/'));
  ASSERT_EQ(::chmod(socketDir.c_str(), 0711), 0);
  RawClient owner(service.socketPath());
  ASSERT_EQ(owner.handshake(), 0u);
  Retra::Request secret(RequestKey(Retra::GET, "http://127.0.0.1:1/secret"));
  secret.passwordIs("hunter2");
  secret.outputPathIs(output.path("files/0/secret.html"));
  owner.sendFrame(Retra::Wire::encodeWriteRequest(1, false, secret));
  EXPECT_EQ(owner.nextReply()->code, ReplyCode::ok);
  Retra::Request outside(RequestKey(Retra::GET, "http://127.0.0.1:1/x"));
  outside.outputPathIs(output.path("files/0/../65534/x.html"));
  owner.sendFrame(Retra::Wire::encodeWriteRequest(2, false, outside));
  EXPECT_EQ(owner.nextReply()->code, ReplyCode::outputPathRefused);

  constexpr uid_t nobody = 65534;
  const std::string socket = service.socketPath();
  const RequestKey key = secret.requestKey();
  EXPECT_EQ(asUid(nobody,
                  [&] {
                    RawClient other(socket);
                    if (other.handshake() != nobody) return 1;
                    other.sendFrame(Retra::Wire::encodeList(1, false));
                    if (other.nextReply()->code != ReplyCode::ok || !other.listing.empty())
                      return 2;
                    other.sendFrame(Retra::Wire::encodeList(2, true));
                    if (other.nextReply()->code != ReplyCode::notAllowed) return 3;
                    other.sendFrame(Retra::Wire::encodeWatch(3, true, RequestKey()));
                    auto first = other.next();
                    if (!first || first->type != MessageType::synced) return 4;  // no snapshot
                    if (other.nextReply()->code != ReplyCode::ok) return 4;
                    other.sendFrame(Retra::Wire::encodeKeyCommand(MessageType::withdraw, 4, key));
                    if (other.nextReply()->code != ReplyCode::notFound) return 5;
                    Retra::Request own(RequestKey(Retra::GET, "http://127.0.0.1:1/own"));
                    own.passwordIs("nobody's");
                    other.sendFrame(Retra::Wire::encodeWriteRequest(5, false, own));
                    return other.nextReply()->code == ReplyCode::ok ? 0 : 6;
                  }),
            0);
  // uid 0 lists every uid read-only; the other uid's secrets are not in it.
  owner.sendFrame(Retra::Wire::encodeList(3, true));
  EXPECT_EQ(owner.nextReply()->code, ReplyCode::ok);
  ASSERT_EQ(owner.listing.size(), 2u);
  for (const auto& item : owner.listing) {
    EXPECT_EQ(item.request.password(), Orb::String(item.uid == 0 ? "hunter2" : "")) << item.uid;
  }
}

}  // namespace
