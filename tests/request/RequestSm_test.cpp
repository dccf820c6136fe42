// The request state machine: its watch on the response, its flags, and the teardown that runs
// whenever it goes.

#include "Retra/request/RequestSm.h"

#include <curl/curl.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <sstream>
#include <string>
#include <vector>

#include "Orb/ActivityManager.h"
#include "Retra/engine/RetraSm.h"
#include "Retra/request/CurlCallbackData.h"
#include "engine/support/TraceCapture.h"

namespace {

using Retra::RequestSm;
using Retra::Response;

std::string prefixOf(const RequestSm* sm) {
  std::ostringstream out;
  out << "[" << static_cast<const void*>(sm) << "] ";
  return out.str();
}

class SmWatch : public RequestSm::NotifieeConst {
 public:
  void onChanged() override { seen.push_back("changed"); }
  void onCurlData() override { seen.push_back("curlData"); }
  void onResponse() override { seen.push_back("response"); }
  std::vector<std::string> seen;
};

class RequestSmTest : public ::testing::Test {
 protected:
  Orb::Ptr<Response> responseNew(const char* uri) {
    return Orb::allocate<Response>(Retra::RequestKey(Retra::GET, uri));
  }

  EngineTest::TraceCapture trace_;
  Retra::CurlCallbackData record_;  // the test's own: the machine only points at it
};

TEST_F(RequestSmTest, BuildingOnAResponseRaisesChangedWithThreeTraces) {
  auto response = responseNew("http://127.0.0.1/");
  auto sm = Retra::requestSmFactory(nullptr, response);
  EXPECT_TRUE(sm->initialized());
  EXPECT_TRUE(sm->changed());
  EXPECT_FALSE(sm->deleted());
  EXPECT_EQ(sm->curlData(), nullptr);
  EXPECT_EQ(sm->response(), response);
  const std::string prefix = prefixOf(sm.ptr());
  EXPECT_EQ(trace_.messages(),
            (std::vector<std::string>{prefix + "changed: response body",
                                      prefix + "changed: response statusCode now 0",
                                      prefix + "changed: response lastError now errNone"}));
  for (const auto& line : trace_.lines()) EXPECT_EQ(line.level, 2u);
  sm->curlDataIs(&record_);
}

TEST_F(RequestSmTest, WithoutResponseNothingChanges) {
  auto sm = RequestSm::RequestSmIs(nullptr, nullptr);
  EXPECT_TRUE(sm->initialized());
  EXPECT_FALSE(sm->changed());
  EXPECT_EQ(sm->state(), Retra::stateNotInit);
  EXPECT_FALSE(sm->response());
  EXPECT_TRUE(trace_.messages().empty());
  sm->curlDataIs(&record_);
}

TEST_F(RequestSmTest, OnlyRealChangesOfTheResponseAreTraced) {
  auto response = responseNew("http://127.0.0.1/");
  auto sm = Retra::requestSmFactory(nullptr, response);
  sm->curlDataIs(&record_);
  auto watch = Orb::allocate<SmWatch>();
  watch->notifierIs(sm);
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
  const std::string prefix = prefixOf(sm.ptr());
  EXPECT_EQ(trace_.messages(),
            (std::vector<std::string>{prefix + "changed: response statusCode now 404",
                                      prefix + "changed: response lastError now errHttpStatusCode",
                                      prefix + "changed: response body"}));
  EXPECT_TRUE(sm->changed());
  // `changed` is raised once and stays up: one notification.
  EXPECT_EQ(watch->seen, (std::vector<std::string>{"changed", "changed"}));
}

TEST_F(RequestSmTest, StateIsTheResponsesRequestState) {
  auto response = responseNew("http://127.0.0.1/");
  auto sm = Retra::requestSmFactory(nullptr, response);
  sm->curlDataIs(&record_);
  sm->stateIs(Retra::stateSendHeader);
  EXPECT_EQ(response->requestState(), Retra::stateSendHeader);
  response->requestStateIs(Retra::stateRecvBody);
  EXPECT_EQ(sm->state(), Retra::stateRecvBody);
}

TEST_F(RequestSmTest, ResponseIsMovesTheWatchToAnotherResponse) {
  auto first = responseNew("http://127.0.0.1/1");
  auto second = responseNew("http://127.0.0.1/2");
  auto sm = Retra::requestSmFactory(nullptr, first);
  sm->curlDataIs(&record_);
  auto watch = Orb::allocate<SmWatch>();
  watch->notifierIs(sm);

  sm->responseIs(first);
  EXPECT_TRUE(watch->seen.empty());
  trace_.clear();
  sm->responseIs(second);
  EXPECT_EQ(sm->response(), second);
  EXPECT_EQ(watch->seen, std::vector<std::string>{"response"});
  EXPECT_EQ(trace_.messages().size(), 3u);  // the new response is read at once
  trace_.clear();
  first->statusCodeIs(500);
  EXPECT_TRUE(trace_.messages().empty());

  sm->responseDel();
  EXPECT_FALSE(sm->response());
  EXPECT_EQ(sm->state(), Retra::stateNotInit);
  sm->responseIs(second);  // teardown below finishes this one
}

TEST_F(RequestSmTest, DestructionTearsTheTransferDown) {
  auto response = responseNew("http://127.0.0.1/file");
  response->outputPathIs("/tmp/retra-download");
  auto sm = Retra::requestSmFactory(nullptr, response);
  record_.headerList = curl_slist_append(nullptr, "Accept: text/plain");
  record_.resolveList = curl_slist_append(nullptr, "a.test:80:192.0.2.1");
  record_.curlHandle = curl_easy_init();
  record_.outputFile = std::tmpfile();
  ASSERT_NE(record_.curlHandle, nullptr);
  ASSERT_NE(record_.outputFile, nullptr);
  sm->curlDataIs(&record_);
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
  EXPECT_EQ(trace_.messages(),
            (std::vector<std::string>{prefix + "shutting down request state machine",
                                      prefix + "freeing curl request header list",
                                      prefix + "freeing curl resolve option list",
                                      prefix + "cleaning up curl easy handle " + handle.str(),
                                      prefix + "closing output file: /tmp/retra-download"}));
  for (const auto& line : trace_.lines()) EXPECT_EQ(line.level, 9u);

  // With nothing left to release, teardown still counts and finishes.
  response->requestStateIs(Retra::stateRecvBody);
  auto again = Retra::requestSmFactory(nullptr, response);
  again->curlDataIs(&record_);
  again->doCurlShutdown();
  EXPECT_EQ(response->counter()->numFinish(), 2u);
  EXPECT_EQ(response->requestState(), Retra::stateFinished);
}

TEST_F(RequestSmTest, MissingRecordIsFatal) {
  auto response = responseNew("http://127.0.0.1/");
  EXPECT_DEATH(
      {
        auto sm = Retra::requestSmFactory(nullptr, response);
        sm = nullptr;
      },
      "cd");
  auto sm = Retra::requestSmFactory(nullptr, response);
  sm->curlDataIs(&record_);
  EXPECT_DEATH(sm->doCurlGetInfo(), "cd->curlMultiHandle");
}

TEST_F(RequestSmTest, ScheduleRefreshArmsTheEnginesRefreshClock) {
  auto requests = Orb::allocate<Retra::RequestDir>("retraRequest");
  auto responses = Orb::allocate<Retra::ResponseDir>("retraResponse");
  auto clock = Orb::activityManager()->clock();
  auto engine = Retra::RetraSm::RetraSmIs(
      requests, responses, Orb::allocate<Dnsr::ResolutionRequestDir>("dnsrRequest"),
      Orb::allocate<Dnsr::ResolutionRecordDir>("dnsrRecord"), clock, clock);
  auto response = responses->responseIs(Retra::RequestKey(Retra::GET, "http://127.0.0.1/"));
  response->lastUpdateTimeIs(1000.0);
  response->timeoutRefreshIs(60);
  auto sm = Retra::requestSmFactory(engine, response);
  sm->curlDataIs(&record_);
  sm->doScheduleRefresh();
  EXPECT_DOUBLE_EQ(engine->refreshClock()->timeMin(), 1060.0);
  EXPECT_TRUE(trace_.has(9, "nudgeRefreshClock setting refresh clock to: 1060"));

  // The record is the test's: the engine leaves it alone when the machine goes.
  record_.requestBody = "kept";
  sm = nullptr;
  EXPECT_EQ(record_.requestBody, "kept");
  engine->shutdown();
  engine->hasNotificationActiveIs(false);
  auto* manager = Orb::activityManager();
  EXPECT_TRUE(manager->runUntil([manager] { return manager->liveHandles() == 0; }, 5.0));
  static auto* retained = new std::vector<Orb::Ptr<Retra::RetraSm>>;  // lives on by design
  retained->push_back(engine);
}

}  // namespace
