// The bridge between libcurl's multi socket interface and the activity loop: socket watches,
// libcurl's timer, the calls back into libcurl, and a real transfer driven by the loop alone.

#include "Retra/engine/CurlBridge.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>

#include "Orb/ActivityManager.h"
#include "Retra/engine/CurlSocketData.h"
#include "Retra/request/CurlCallbackData.h"
#include "dnsr/support/Dnsmasq.h"
#include "engine/support/EngineFixture.h"
#include "support/LoopbackHttpServer.h"

namespace {

using Retra::RequestKey;

struct SocketPair {
  SocketPair() { EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, fd), 0); }
  ~SocketPair() {
    ::close(fd[0]);
    ::close(fd[1]);
  }
  int fd[2] = {-1, -1};
};

// Takes the body in; on its first chunk it also calls back into the engine, which libcurl
// refuses from inside its own callback.
struct Download {
  Retra::RetraSm* engine = nullptr;
  std::string body;
};

size_t appendBody(char* data, size_t size, size_t count, void* context) {
  auto* download = static_cast<Download*>(context);
  if (download->body.empty()) {
    download->engine->handleSocketEv(-1);
    download->engine->handleTimeout();
  }
  download->body.append(data, size * count);
  return size * count;
}

class CurlBridgeTest : public EngineTest::RootFixture {
 protected:
  void SetUp() override { rootIs(silent_.server()); }
  void TearDown() override {
    Orb::activityManager()->realTimeIs();
    RootFixture::TearDown();
  }

  DnsrTest::SilentServer silent_;
};

TEST_F(CurlBridgeTest, SocketCallbackMapsWishesToWatches) {
  SocketPair pair;
  const int s = pair.fd[0];
  void* global = engine_->curlGlobal();

  EXPECT_EQ(Retra::curlSockCb(nullptr, s, CURL_POLL_IN, global, nullptr), 0);
  auto fileDescriptor = engine_->socket(s);
  ASSERT_TRUE(fileDescriptor);
  ASSERT_TRUE(engine_->socketFd(s));
  EXPECT_EQ(engine_->socketFd(s)->notifierPtr(), fileDescriptor.ptr());
  EXPECT_EQ(engine_->socket().size(), 1u);
  EXPECT_EQ(fileDescriptor->descriptor(), s);
  EXPECT_TRUE(fileDescriptor->nonBlocking());
  EXPECT_TRUE(fileDescriptor->notifyOnReadable());
  EXPECT_FALSE(fileDescriptor->notifyOnWritable());
  const std::string fd = std::to_string(s);
  EXPECT_TRUE(trace_.has(4, "socket callback fd=" + fd + " action=IN"));
  EXPECT_TRUE(trace_.has(4, "new socket fd=" + fd + " action=IN"));
  EXPECT_TRUE(trace_.has(4, "set socket fd=" + fd + " action=IN"));

  // Later wishes come with the socket's record.
  Retra::CurlSocketData record{fileDescriptor};
  EXPECT_EQ(Retra::curlSockCb(nullptr, s, CURL_POLL_OUT, global, &record), 0);
  EXPECT_FALSE(fileDescriptor->notifyOnReadable());
  EXPECT_TRUE(fileDescriptor->notifyOnWritable());
  EXPECT_EQ(Retra::curlSockCb(nullptr, s, CURL_POLL_INOUT, global, &record), 0);
  EXPECT_FALSE(fileDescriptor->notifyOnReadable());
  EXPECT_FALSE(fileDescriptor->notifyOnWritable());
  EXPECT_TRUE(trace_.has(4, "set socket fd=" + fd + " action=INOUT"));
  EXPECT_EQ(engine_->socket().size(), 1u);

  // Removal without a record does nothing but trace.
  trace_.clear();
  EXPECT_EQ(Retra::curlSockCb(nullptr, s, CURL_POLL_REMOVE, global, nullptr), 0);
  EXPECT_TRUE(engine_->socket(s));
  EXPECT_EQ(trace_.messages(),
            std::vector<std::string>{"socket callback fd=" + fd + " action=REMOVE"});

  EXPECT_EQ(Retra::curlSockCb(nullptr, s, CURL_POLL_REMOVE, global, &record), 0);
  EXPECT_EQ(fileDescriptor->descriptor(), -1);
  EXPECT_FALSE(engine_->socket(s));
  EXPECT_FALSE(engine_->socketFd(s));
}

TEST_F(CurlBridgeTest, ReadinessHandsTheSocketBackToLibcurl) {
  SocketPair pair;
  const int s = pair.fd[0];
  EXPECT_EQ(Retra::curlSockCb(nullptr, s, CURL_POLL_IN, engine_->curlGlobal(), nullptr), 0);
  ASSERT_EQ(::write(pair.fd[1], "x", 1), 1);
  trace_.clear();
  ASSERT_TRUE(EngineTest::runUntil(
      [&] { return trace_.has(2, "handleSocketEv on fd=" + std::to_string(s)); }, 5.0));
  // libcurl does not know the socket: no error for it.
  EXPECT_EQ(trace_.countStartingWith("handleSocketEv error"), 0u);
  Retra::CurlSocketData record{engine_->socket(s)};
  EXPECT_EQ(Retra::curlSockCb(nullptr, s, CURL_POLL_REMOVE, engine_->curlGlobal(), &record), 0);
}

TEST_F(CurlBridgeTest, TimerCallbackSetsTheTimeoutClockFromNow) {
  Orb::ActivityManager* manager = Orb::activityManager();
  manager->manualTimeIs(1000.0);
  void* global = engine_->curlGlobal();

  Retra::curlTimerCb(nullptr, 250, global);
  EXPECT_DOUBLE_EQ(engine_->timeoutClock()->timeMin(), 1000.25);
  EXPECT_TRUE(trace_.has(4, "new curl event timeout=250 milliseconds"));
  EXPECT_TRUE(trace_.has(9, "nudgeTimeoutClock setting curl timeout clock to: 1000.25"));

  // libcurl's -1 lands in the past and fires on the next turn.
  EXPECT_EQ(Retra::curlTimerCallback(nullptr, -1, global), 0);
  EXPECT_DOUBLE_EQ(engine_->timeoutClock()->timeMin(), 999.999);
  trace_.clear();
  manager->runOnce(0);
  EXPECT_TRUE(trace_.has(2, "void Retra::RetraSm::handleTimeout()"));
  EXPECT_EQ(trace_.countStartingWith("curl_multi_socket_action error"), 0u);

  // Each wish replaces the last; 0 is now.
  Retra::curlTimerCb(nullptr, 0, global);
  EXPECT_DOUBLE_EQ(engine_->timeoutClock()->timeMin(), 1000.0);
}

TEST_F(CurlBridgeTest, NullTimerRecordIsFatal) {
  EXPECT_DEATH(Retra::curlTimerCb(nullptr, 1, nullptr), "global");
}

TEST_F(CurlBridgeTest, MultiCodesAreNamedByNumber) {
  EXPECT_STREQ(Retra::mcodeString(-1), "CURLM_CALL_MULTI_PERFORM");
  EXPECT_STREQ(Retra::mcodeString(CURLM_BAD_HANDLE), "CURLM_BAD_HANDLE");
  EXPECT_STREQ(Retra::mcodeString(CURLM_BAD_EASY_HANDLE), "CURLM_BAD_EASY_HANDLE");
  EXPECT_STREQ(Retra::mcodeString(CURLM_OUT_OF_MEMORY), "CURLM_OUT_OF_MEMORY");
  EXPECT_STREQ(Retra::mcodeString(CURLM_INTERNAL_ERROR), "CURLM_INTERNAL_ERROR");
  EXPECT_STREQ(Retra::mcodeString(CURLM_UNKNOWN_OPTION), "CURLM_UNKNOWN_OPTION");
  EXPECT_STREQ(Retra::mcodeString(8), "CURLM_LAST");
  for (int code : {0, 5, 7, 9, 42}) EXPECT_STREQ(Retra::mcodeString(code), "CURLM_unknown");
}

TEST_F(CurlBridgeTest, TimeoutAfterShutdownLeavesLibcurlAlone) {
  engine_->shutdown();
  trace_.clear();
  engine_->handleTimeout();
  EXPECT_EQ(trace_.messages(), std::vector<std::string>{"void Retra::RetraSm::handleTimeout()"});
}

TEST_F(CurlBridgeTest, LoopDrivesARealTransferThroughTheBridge) {
  RetraTest::LoopbackHttpServer server;
  server.routeIs("/hello", {200, {{"Content-Type", "text/plain"}}, "hello, bridge"});
  // A host name the silent resolver never answers: the engine does not dispatch it itself.
  const RequestKey key = requestIs("http://bridge.test/hello");
  ASSERT_EQ(response(key)->requestState(), Retra::stateDnsResolving);

  // The request's own record and easy handle, aimed at the server and added to the engine's
  // multi handle by hand.
  auto* cd = static_cast<Retra::CurlCallbackData*>(engine_->retraCurl(key));
  ASSERT_NE(cd, nullptr);
  Download download{engine_.ptr(), {}};
  curl_easy_setopt(cd->curlHandle, CURLOPT_URL, server.url("/hello").c_str());
  curl_easy_setopt(cd->curlHandle, CURLOPT_WRITEFUNCTION, appendBody);
  curl_easy_setopt(cd->curlHandle, CURLOPT_WRITEDATA, &download);
  ASSERT_EQ(curl_multi_add_handle(static_cast<CURLM*>(cd->curlMultiHandle), cd->curlHandle),
            CURLM_OK);

  // Completion harvests the transfer into the response (and releases the record).
  ASSERT_TRUE(EngineTest::runUntil([&] { return response(key)->finished(); }, 10.0));
  EXPECT_EQ(response(key)->statusCode(), 200);
  EXPECT_EQ(response(key)->lastError(), Retra::errNone);
  EXPECT_EQ(download.body, "hello, bridge");
  ASSERT_EQ(server.requests().size(), 1u);
  EXPECT_EQ(server.requests()[0].target, "/hello");
  EXPECT_GE(trace_.countStartingWith("new socket fd="), 1u);
  EXPECT_GE(trace_.countStartingWith("handleSocketEv on fd="), 1u);
  EXPECT_GE(trace_.countStartingWith("new curl event timeout="), 1u);
  EXPECT_GE(trace_.countStartingWith("0 further curl response messages"), 1u);
  // The refused calls: libcurl's "recursive API call" is number 8, which traces as CURLM_LAST.
  EXPECT_TRUE(trace_.has(1, "handleSocketEv error on fd=-1 error=CURLM_LAST"));
  EXPECT_TRUE(trace_.has(1, "curl_multi_socket_action error=CURLM_LAST"));

  // Shutdown leaves no socket watched.
  engine_->shutdown();
  EXPECT_TRUE(engine_->socket().empty());
  EXPECT_TRUE(engine_->socketFd().empty());
}

}  // namespace
