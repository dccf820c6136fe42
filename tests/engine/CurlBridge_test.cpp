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
#include "engine/support/TransferFixture.h"

namespace {

using Retra::RequestKey;

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

class CurlBridgeTest : public EngineTest::TransferFixture {
 protected:
  void TearDown() override {
    Orb::activityManager()->realTimeIs();
    TransferFixture::TearDown();
  }
};

TEST_F(CurlBridgeTest, SocketWishesBecomeWatchesAndReadinessGoesBackToLibcurl) {
  int pair[2];
  ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
  const int s = pair[0];
  const std::string fd = std::to_string(s);
  void* global = engine_->curlGlobal();

  EXPECT_EQ(Retra::curlSockCb(nullptr, s, CURL_POLL_IN, global, nullptr), 0);
  auto watch = engine_->socket(s);
  ASSERT_TRUE(watch);
  EXPECT_EQ(engine_->socketFd(s)->notifierPtr(), watch.ptr());
  EXPECT_EQ(watch->descriptor(), s);
  EXPECT_TRUE(watch->nonBlocking());
  EXPECT_TRUE(watch->notifyOnReadable() && !watch->notifyOnWritable());
  EXPECT_TRUE(trace_.has(4, "new socket fd=" + fd + " action=IN"));

  // Readiness hands the socket to libcurl, which does not know it: no error for it.
  ASSERT_EQ(::write(pair[1], "x", 1), 1);
  ASSERT_TRUE(EngineTest::runUntil([&] { return trace_.has(2, "handleSocketEv on fd=" + fd); }));
  EXPECT_EQ(trace_.countStartingWith("handleSocketEv error"), 0u);

  // Later wishes come with the socket's record; INOUT deliberately watches for nothing.
  Retra::CurlSocketData record{watch};
  EXPECT_EQ(Retra::curlSockCb(nullptr, s, CURL_POLL_OUT, global, &record), 0);
  EXPECT_TRUE(!watch->notifyOnReadable() && watch->notifyOnWritable());
  EXPECT_EQ(Retra::curlSockCb(nullptr, s, CURL_POLL_INOUT, global, &record), 0);
  EXPECT_TRUE(!watch->notifyOnReadable() && !watch->notifyOnWritable());
  EXPECT_TRUE(trace_.has(4, "set socket fd=" + fd + " action=INOUT"));
  EXPECT_EQ(engine_->socket().size(), 1u);

  // Removal without a record does nothing but trace; with it the watch goes.
  trace_.clear();
  EXPECT_EQ(Retra::curlSockCb(nullptr, s, CURL_POLL_REMOVE, global, nullptr), 0);
  EXPECT_TRUE(engine_->socket(s));
  EXPECT_EQ(trace_.messages(),
            std::vector<std::string>{"socket callback fd=" + fd + " action=REMOVE"});
  EXPECT_EQ(Retra::curlSockCb(nullptr, s, CURL_POLL_REMOVE, global, &record), 0);
  EXPECT_EQ(watch->descriptor(), -1);
  EXPECT_FALSE(engine_->socket(s) || engine_->socketFd(s));
  ::close(pair[0]);
  ::close(pair[1]);
}

TEST_F(CurlBridgeTest, TimerWishSetsTheTimeoutClockFromNow) {
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

  Retra::curlTimerCb(nullptr, 0, global);  // each wish replaces the last; 0 is now
  EXPECT_DOUBLE_EQ(engine_->timeoutClock()->timeMin(), 1000.0);
  EXPECT_DEATH(Retra::curlTimerCb(nullptr, 1, nullptr), "global");
}

TEST_F(CurlBridgeTest, MultiCodesAreNamedByNumber) {
  const std::pair<int, const char*> names[] = {{-1, "CURLM_CALL_MULTI_PERFORM"},
                                               {1, "CURLM_BAD_HANDLE"},
                                               {2, "CURLM_BAD_EASY_HANDLE"},
                                               {3, "CURLM_OUT_OF_MEMORY"},
                                               {4, "CURLM_INTERNAL_ERROR"},
                                               {6, "CURLM_UNKNOWN_OPTION"},
                                               {8, "CURLM_LAST"},
                                               {0, "CURLM_unknown"},
                                               {5, "CURLM_unknown"},
                                               {7, "CURLM_unknown"},
                                               {42, "CURLM_unknown"}};
  for (const auto& [code, name] : names) EXPECT_STREQ(Retra::mcodeString(code), name) << code;
}

TEST_F(CurlBridgeTest, LoopDrivesARealTransferThroughTheBridge) {
  server_.routeIs("/hello", {200, {{"Content-Type", "text/plain"}}, "hello, bridge"});
  // A host name the silent resolver never answers: the engine does not dispatch it itself.
  const RequestKey key = requestIs("http://bridge.test/hello");
  ASSERT_EQ(response(key)->requestState(), Retra::stateDnsResolving);

  // The request's own record and easy handle, aimed at the server and added to the engine's
  // multi handle by hand.
  auto* cd = static_cast<Retra::CurlCallbackData*>(engine_->retraCurl(key));
  ASSERT_NE(cd, nullptr);
  Download download{engine_.ptr(), {}};
  curl_easy_setopt(cd->curlHandle, CURLOPT_URL, server_.url("/hello").c_str());
  curl_easy_setopt(cd->curlHandle, CURLOPT_WRITEFUNCTION, appendBody);
  curl_easy_setopt(cd->curlHandle, CURLOPT_WRITEDATA, &download);
  ASSERT_EQ(curl_multi_add_handle(static_cast<CURLM*>(cd->curlMultiHandle), cd->curlHandle),
            CURLM_OK);

  // Completion harvests the transfer into the response (and releases the record).
  ASSERT_TRUE(finished(key));
  EXPECT_EQ(response(key)->statusCode(), 200);
  EXPECT_EQ(download.body, "hello, bridge");
  EXPECT_EQ(receivedFor("/hello").method, "GET");
  EXPECT_GE(trace_.countStartingWith("new curl event timeout="), 1u);
  EXPECT_GE(trace_.countStartingWith("0 further curl response messages"), 1u);
  // The refused calls: libcurl's "recursive API call" is number 8, which traces as CURLM_LAST.
  EXPECT_TRUE(trace_.has(1, "handleSocketEv error on fd=-1 error=CURLM_LAST"));
  EXPECT_TRUE(trace_.has(1, "curl_multi_socket_action error=CURLM_LAST"));

  // Shutdown leaves no socket watched, and a late time-out leaves libcurl alone.
  engine_->shutdown();
  EXPECT_TRUE(engine_->socket().empty() && engine_->socketFd().empty());
  trace_.clear();
  engine_->handleTimeout();
  EXPECT_EQ(trace_.messages(), std::vector<std::string>{"void Retra::RetraSm::handleTimeout()"});
}

}  // namespace
