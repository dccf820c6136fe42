// Completion of finished transfers: messages read one at a time, and a transfer that completes
// after its response was deleted.

#include <curl/curl.h>
#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "engine/support/TransferFixture.h"
#include "support/FaultAnswers.h"

namespace {

using Retra::RequestKey;
using RetraTest::LoopbackHttpServer;

using TransferCompletionTest = EngineTest::TransferFixture;

TEST_F(TransferCompletionTest, TransfersFinishedTogetherAreCompletedOneMessageAtATime) {
  trace_.clear();
  engine_->doCurlReadInfo();  // nothing finished: nothing said
  EXPECT_TRUE(trace_.messages().empty());

  const RequestKey one = requestIs(RetraTest::FaultAnswers::refusingUrl("/one"));
  const RequestKey two = requestIs(RetraTest::FaultAnswers::refusingUrl("/two"));
  // The test drives libcurl itself until both transfers are over, leaving their messages
  // unread: curl_multi_perform looks at every socket without waiting for readiness.
  auto* multi = static_cast<CURLM*>(engine_->curlMultiHandle());
  int running = 2;
  for (int turn = 0; running > 0 && turn < 500; ++turn) {
    ASSERT_EQ(curl_multi_perform(multi, &running), CURLM_OK);
    if (running > 0) std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  ASSERT_EQ(running, 0);
  EXPECT_FALSE(response(one)->finished() || response(two)->finished());

  trace_.clear();
  engine_->doCurlReadInfo();
  for (const RequestKey& key : {one, two}) {
    EXPECT_EQ(response(key)->lastError(), Retra::errConnRefused);
    EXPECT_FALSE(engine_->requestSm(key));
  }
  std::vector<std::string> completion;
  for (const std::string& message : trace_.messages()) {
    if (message.ends_with("further curl response messages")) completion.push_back(message);
    if (message.find("] finishing GET ") != std::string::npos) completion.push_back("finishing");
  }
  EXPECT_EQ(completion,
            (std::vector<std::string>{"1 further curl response messages", "finishing",
                                      "0 further curl response messages", "finishing"}));
}

TEST_F(TransferCompletionTest, TransferWhoseResponseWasDeletedStillCompletes) {
  server_.routeIs("/gone", LoopbackHttpServer::Answer{200, {}, "answer"});
  const RequestKey key = requestIs(server_.url("/gone"));
  auto response = this->response(key);
  (void)root_->retraResponse()->responseDel(key);
  EXPECT_FALSE(engine_->retraResponseReactor(key));

  // The response lives on in the machine, which publishes the result into it; with no reactor
  // to close the request, the machine stays and nothing is stamped.
  ASSERT_TRUE(EngineTest::runUntil([&] { return response->finished(); }));
  EXPECT_EQ(response->statusCode(), 200);
  EXPECT_EQ(response->body(), "answer");
  EXPECT_TRUE(engine_->requestSm(key));
  EXPECT_EQ(response->lastUpdateTime(), 0.0);

  // The next change of the request brings a new response, machine and transfer.
  Retra::Request changed = requestOf(server_.url("/gone"));
  changed.timeoutRefreshIs(60);
  requestIs(changed);
  ASSERT_NE(this->response(key), response);
  ASSERT_TRUE(finished(key));
  EXPECT_EQ(this->response(key)->body(), "answer");
  EXPECT_FALSE(engine_->requestSm(key));
}

}  // namespace
