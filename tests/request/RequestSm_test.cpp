// The request state machine: its watch on the response, its flags, and the teardown that runs
// whenever it goes.

#include "Retra/request/RequestSm.h"

#include <curl/curl.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <sstream>
#include <string>
#include <vector>

#include "Retra/engine/RetraSm.h"
#include "Retra/request/CurlCallbackData.h"
#include "engine/support/TraceCapture.h"

namespace {

using Retra::RequestSm;
using Retra::Response;
using Messages = std::vector<std::string>;

std::string prefixOf(const RequestSm* sm) {
  std::ostringstream out;
  out << "[" << static_cast<const void*>(sm) << "] ";
  return out.str();
}

class SmWatch : public RequestSm::NotifieeConst {
 public:
  void onChanged() override { seen.push_back("changed"); }
  void onResponse() override { seen.push_back("response"); }
  Messages seen;
};

class RequestSmTest : public ::testing::Test {
 protected:
  Orb::Ptr<Response> responseNew(const char* uri) {
    return Orb::allocate<Response>(Retra::RequestKey(Retra::GET, uri));
  }
  // A machine on `response` with the test's record, watched (weakly) from the start.
  Orb::Ptr<RequestSm> smOn(const Orb::Ptr<Response>& response) {
    auto sm = Retra::requestSmFactory(nullptr, response);
    sm->curlDataIs(&record_);
    watch_->isWeakReferenceIs(true);
    watch_->notifierIs(sm);
    return sm;
  }

  EngineTest::TraceCapture trace_;
  Retra::CurlCallbackData record_;  // the test's own: the machine only points at it
  Orb::Ptr<SmWatch> watch_ = Orb::allocate<SmWatch>();
};

TEST_F(RequestSmTest, BuildingOnAResponseRaisesChangedAndOnlyRealChangesAreTraced) {
  auto response = responseNew("http://127.0.0.1/");
  auto sm = smOn(response);
  EXPECT_TRUE(sm->initialized() && sm->changed() && !sm->deleted());
  const std::string prefix = prefixOf(sm.ptr());
  EXPECT_EQ(trace_.messages(), (Messages{prefix + "changed: response body",
                                         prefix + "changed: response statusCode now 0",
                                         prefix + "changed: response lastError now errNone"}));
  for (const auto& line : trace_.lines()) EXPECT_EQ(line.level, 2u);

  sm->changedIs(false);
  trace_.clear();
  response->bodyIs("");
  response->statusCodeIs(0);
  response->lastErrorIs(Retra::errNone);
  response->contentTypeIs("text/plain");  // not watched
  EXPECT_TRUE(trace_.messages().empty());
  EXPECT_FALSE(sm->changed());

  response->statusCodeIs(404);
  response->lastErrorIs(Retra::errHttpStatusCode);
  response->bodyIs("gone");
  EXPECT_EQ(trace_.messages(),
            (Messages{prefix + "changed: response statusCode now 404",
                      prefix + "changed: response lastError now errHttpStatusCode",
                      prefix + "changed: response body"}));
  EXPECT_TRUE(sm->changed());
  // `changed` was lowered once and raised once since the watch began.
  EXPECT_EQ(watch_->seen, (Messages{"changed", "changed"}));

  // The machine's state is the response's requestState, both ways.
  sm->stateIs(Retra::stateSendHeader);
  EXPECT_EQ(response->requestState(), Retra::stateSendHeader);
  response->requestStateIs(Retra::stateRecvBody);
  EXPECT_EQ(sm->state(), Retra::stateRecvBody);
}

TEST_F(RequestSmTest, ResponseIsMovesTheWatchToAnotherResponse) {
  auto first = responseNew("http://127.0.0.1/1");
  auto second = responseNew("http://127.0.0.1/2");
  auto sm = smOn(first);
  sm->responseIs(first);
  EXPECT_TRUE(watch_->seen.empty());

  trace_.clear();
  sm->responseIs(second);
  EXPECT_EQ(watch_->seen, Messages{"response"});
  EXPECT_EQ(trace_.messages().size(), 3u);  // the new response is read at once
  trace_.clear();
  first->statusCodeIs(500);
  EXPECT_TRUE(trace_.messages().empty());

  sm->responseDel();
  EXPECT_EQ(sm->state(), Retra::stateNotInit);
  sm->responseIs(second);  // teardown finishes this one

  // Without a response nothing changes.
  auto bare = RequestSm::RequestSmIs(nullptr, nullptr);
  bare->curlDataIs(&record_);
  EXPECT_FALSE(bare->changed());
  EXPECT_EQ(bare->state(), Retra::stateNotInit);
}

TEST_F(RequestSmTest, DestructionTearsTheTransferDownAndCountsEveryFinish) {
  auto response = responseNew("http://127.0.0.1/file");
  response->outputPathIs("/tmp/retra-download");
  auto sm = smOn(response);
  record_.headerList = curl_slist_append(nullptr, "Accept: text/plain");
  record_.resolveList = curl_slist_append(nullptr, "a.test:80:192.0.2.1");
  record_.curlHandle = curl_easy_init();
  record_.outputFile = std::tmpfile();
  ASSERT_NE(record_.curlHandle, nullptr);
  ASSERT_NE(record_.outputFile, nullptr);
  const std::string prefix = prefixOf(sm.ptr());
  std::ostringstream handle;
  handle << static_cast<void*>(record_.curlHandle);
  trace_.clear();

  sm = nullptr;
  EXPECT_EQ(record_.headerList, nullptr);
  EXPECT_EQ(record_.resolveList, nullptr);
  EXPECT_EQ(record_.curlHandle, nullptr);
  EXPECT_EQ(record_.outputFile, nullptr);
  EXPECT_EQ(response->counter()->numFinish(), 1u);
  EXPECT_EQ(response->requestState(), Retra::stateFinished);
  EXPECT_EQ(trace_.messages(), (Messages{prefix + "shutting down request state machine",
                                         prefix + "freeing curl request header list",
                                         prefix + "freeing curl resolve option list",
                                         prefix + "cleaning up curl easy handle " + handle.str(),
                                         prefix + "closing output file: /tmp/retra-download"}));
  for (const auto& line : trace_.lines()) EXPECT_EQ(line.level, 9u);

  // With nothing left to release, teardown still counts and finishes.
  response->requestStateIs(Retra::stateRecvBody);
  auto again = smOn(response);
  again->doCurlShutdown();
  EXPECT_EQ(response->counter()->numFinish(), 2u);
  EXPECT_EQ(response->requestState(), Retra::stateFinished);
}

TEST_F(RequestSmTest, MissingRecordIsFatal) {
  auto response = responseNew("http://127.0.0.1/");
  EXPECT_DEATH((void)Retra::requestSmFactory(nullptr, response), "cd");
  auto sm = smOn(response);
  EXPECT_DEATH(sm->doCurlGetInfo(), "cd->curlMultiHandle");
}

}  // namespace
