// Completion of finished transfers, and the engine's paths around a transfer that is still
// running when its request changes, is withdrawn or loses its response.

#include <curl/curl.h>
#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include <string>
#include <vector>

#include "engine/support/TransferFixture.h"
#include "support/FaultAnswers.h"

namespace {

using Retra::RequestKey;
using RetraTest::LoopbackHttpServer;

class TransferCompletionTest : public EngineTest::TransferFixture {
 protected:
  void SetUp() override {
    TransferFixture::SetUp();
    // "?round=1" without an X-Round header never gets an answer; anything else gets one at once.
    server_.routeIs("/held", [this](int socket, const LoopbackHttpServer::Received& request) {
      if (request.target.ends_with("round=1") && !request.headers.contains("x-round")) {
        server_.waitUntilStopping();
        return;
      }
      (void)LoopbackHttpServer::sendAll(
          socket, LoopbackHttpServer::bytesOf({200, {}, "answer to " + request.target}));
    });
  }

  // Runs the loop until the server has received `count` requests.
  bool received(size_t count) {
    return EngineTest::runUntil([&] { return server_.requests().size() >= count; });
  }
  // The lines that end with `suffix`.
  size_t tracedEndingWith(const std::string& suffix) const {
    size_t count = 0;
    for (const std::string& message : trace_.messages()) count += message.ends_with(suffix);
    return count;
  }
};

TEST_F(TransferCompletionTest, TransfersFinishedTogetherAreCompletedInOnePass) {
  const RequestKey one = requestIs(RetraTest::FaultAnswers::refusingUrl("/one"));
  const RequestKey two = requestIs(RetraTest::FaultAnswers::refusingUrl("/two"));
  ASSERT_EQ(response(one)->requestState(), Retra::stateSendHeader);
  ASSERT_EQ(response(two)->requestState(), Retra::stateSendHeader);

  // The test drives libcurl itself until both transfers are over, leaving their messages
  // unread.
  auto* multi = static_cast<CURLM*>(engine_->curlMultiHandle());
  int running = 2;
  for (int turn = 0; running > 0 && turn < 500; ++turn) {
    ASSERT_EQ(curl_multi_socket_action(multi, CURL_SOCKET_TIMEOUT, 0, &running), CURLM_OK);
    if (running > 0) std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  ASSERT_EQ(running, 0);
  EXPECT_FALSE(response(one)->finished());
  EXPECT_FALSE(response(two)->finished());

  trace_.clear();
  engine_->doCurlReadInfo();
  for (const RequestKey& key : {one, two}) {
    EXPECT_TRUE(response(key)->finished());
    EXPECT_EQ(response(key)->lastError(), Retra::errConnRefused);
    EXPECT_FALSE(engine_->requestSm(key));
  }
  // One message after the other, each completed before the next is read.
  std::vector<std::string> completion;
  for (const std::string& message : trace_.messages()) {
    if (message.ends_with("further curl response messages")) completion.push_back(message);
    if (message.find("] finishing GET ") != std::string::npos) completion.push_back("finishing");
  }
  EXPECT_EQ(completion,
            (std::vector<std::string>{"1 further curl response messages", "finishing",
                                      "0 further curl response messages", "finishing"}));
}

TEST_F(TransferCompletionTest, WithNothingFinishedCompletionSaysNothing) {
  trace_.clear();
  engine_->doCurlReadInfo();
  EXPECT_TRUE(trace_.messages().empty());
}

TEST_F(TransferCompletionTest, RequestChangedWhileRunningIsFetchedAfreshToTheEnd) {
  Retra::Request request = requestOf(server_.url("/held?round=1"));
  requestIs(request);
  const RequestKey key = request.requestKey();
  auto response = this->response(key);
  ASSERT_TRUE(received(1));
  EXPECT_FALSE(response->finished());

  // The change reaches the running transfer: a new machine and record take over.
  trace_.clear();
  request.headerIs("X-Round", "2");
  requestIs(request);
  EXPECT_EQ(response->numRequest(), 2u);
  ASSERT_TRUE(engine_->requestSm(key));
  // The old machine's teardown finished the response on its way out, with no machine in place
  // to close; the new one was dispatched after it.
  EXPECT_EQ(tracedEndingWith("] bad RequestSm handle"), 1u);
  EXPECT_EQ(response->requestState(), Retra::stateSendHeader);

  ASSERT_TRUE(finished(key));
  EXPECT_EQ(response->lastError(), Retra::errNone);
  EXPECT_EQ(response->statusCode(), 200);
  EXPECT_EQ(response->body(), "answer to /held?round=1");
  ASSERT_EQ(server_.requests().size(), 2u);
  EXPECT_EQ(server_.requests()[1].headers.at("x-round"), "2");
  EXPECT_GT(response->lastUpdateTime(), 0.0);
  EXPECT_FALSE(engine_->requestSm(key));
  EXPECT_TRUE(engine_->socket().empty());
}

TEST_F(TransferCompletionTest, RequestWithdrawnWhileRunningLeavesNothingBehind) {
  const RequestKey key = requestIs(server_.url("/held?round=1"));
  ASSERT_TRUE(received(1));
  ASSERT_FALSE(engine_->socket().empty());

  requestDel(key);
  EXPECT_FALSE(response(key));
  EXPECT_FALSE(engine_->requestSm(key));
  EXPECT_FALSE(engine_->retraResponseReactor(key));
  EXPECT_TRUE(engine_->socket().empty());

  // The engine goes on with other requests.
  const RequestKey next = requestIs(server_.url("/held?next"));
  ASSERT_TRUE(finished(next));
  EXPECT_EQ(response(next)->body(), "answer to /held?next");
}

TEST_F(TransferCompletionTest, TransferWhoseResponseWasDeletedStillCompletes) {
  const RequestKey key = requestIs(server_.url("/held?gone"));
  auto response = this->response(key);
  (void)root_->retraResponse()->responseDel(key);
  EXPECT_FALSE(engine_->retraResponseReactor(key));

  // The response lives on in the machine, which publishes the result into it; with no reactor
  // to close the request, the machine stays.
  ASSERT_TRUE(EngineTest::runUntil([&] { return response->finished(); }));
  EXPECT_EQ(response->statusCode(), 200);
  EXPECT_EQ(response->body(), "answer to /held?gone");
  EXPECT_TRUE(engine_->requestSm(key));
  EXPECT_EQ(response->lastUpdateTime(), 0.0);

  // The next change of the request brings a new response, machine and transfer.
  Retra::Request changed = requestOf(server_.url("/held?gone"));
  changed.timeoutRefreshIs(60);
  requestIs(changed);
  ASSERT_NE(this->response(key), response);
  ASSERT_TRUE(finished(key));
  EXPECT_EQ(this->response(key)->body(), "answer to /held?gone");
  EXPECT_FALSE(engine_->requestSm(key));
}

}  // namespace
