// Dispatch, seen from a real server: what the end-to-end fetches leave out (a blank user agent,
// bodies of the less common methods, the resolve list, verbose tracing, a refused add).

#include <curl/curl.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Retra/request/CurlCallbackData.h"
#include "engine/support/TransferFixture.h"
#include "support/FaultAnswers.h"

namespace {

using Retra::RequestKey;
using RetraTest::LoopbackHttpServer;

std::vector<std::string> entriesOf(const curl_slist* list) {
  std::vector<std::string> entries;
  for (; list; list = list->next) entries.emplace_back(list->data);
  return entries;
}

class RequestDispatchTest : public EngineTest::TransferFixture {
 protected:
  void SetUp() override {
    TransferFixture::SetUp();
    server_.routeIs("/echo", LoopbackHttpServer::Answer{200, {}, "answer"});
  }
  Retra::CurlCallbackData* record(const RequestKey& key) {
    return static_cast<Retra::CurlCallbackData*>(engine_->retraCurl(key));
  }
};

TEST_F(RequestDispatchTest, MethodsBodiesAndTheBlankUserAgentGoOutAsLibcurlReadsThem) {
  struct Case {
    Retra::Method method;
    std::string query, body, seenMethod, seenBody;
  };
  const std::vector<Case> cases = {
      {Retra::POST, "post", "a=1&b=2", "POST", "a=1&b=2"},
      {Retra::PUT, "put-empty", "", "PUT", ""},
      {Retra::DELETE, "delete", "ignored", "DELETE", ""},
      // Without a body a POST sets only the body's size, which leaves libcurl's method alone.
      {Retra::POST, "post-empty", "", "GET", ""},
  };
  std::vector<RequestKey> keys;
  for (const Case& c : cases) {
    const Retra::Request request = requestOf(server_.url("/echo?" + c.query), c.method, c.body);
    requestIs(request);
    keys.push_back(request.requestKey());
  }
  // An empty client value leaves the default set, but its line ("User-Agent: ") goes out too,
  // and libcurl takes a header line without content as "send no such header".
  Retra::Request blank = requestOf(server_.url("/echo?blank"));
  blank.headerIs("User-Agent", "");
  requestIs(blank);
  keys.push_back(blank.requestKey());

  for (const RequestKey& key : keys) {
    ASSERT_TRUE(finished(key));
    EXPECT_EQ(response(key)->lastError(), Retra::errNone) << key;
  }
  for (const Case& c : cases) {
    SCOPED_TRACE(c.query);
    const auto seen = receivedFor("/echo?" + c.query);
    EXPECT_EQ(seen.method, c.seenMethod);
    EXPECT_EQ(seen.body, c.seenBody);
  }
  EXPECT_EQ(receivedFor("/echo?post").headers["content-type"], "application/x-www-form-urlencoded");
  EXPECT_EQ(EngineTest::countEndingWith(trace_, 2, "] added custom request for PUT"), 1u);
  EXPECT_FALSE(receivedFor("/echo?blank").headers.contains("user-agent"));
  EXPECT_EQ(EngineTest::countEndingWith(trace_, 3, "] request header: 'User-Agent: '"), 1u);
}

TEST_F(RequestDispatchTest, ResolveListPinsTheHostToItsResolvedAddresses) {
  const std::string port = std::to_string(server_.port());
  const RequestKey key = requestIs("http://pinned.test:" + port + "/echo?pinned");
  ASSERT_EQ(response(key)->requestState(), Retra::stateDnsResolving);

  releasedTo(key, "127.0.0.1", "::1");
  ASSERT_EQ(response(key)->requestState(), Retra::stateSendHeader);
  EXPECT_EQ(entriesOf(record(key)->resolveList),
            (std::vector<std::string>{"-pinned.test:" + port, "pinned.test:" + port + ":::1",
                                      "pinned.test:" + port + ":127.0.0.1"}));
  // The name exists nowhere but in the list.
  ASSERT_TRUE(finished(key));
  EXPECT_EQ(response(key)->statusCode(), 200);
  EXPECT_EQ(receivedFor("/echo?pinned").headers.at("host"), "pinned.test:" + port);

  // A response without host name makes no list: libcurl connects as the URI says.
  const RequestKey literal = requestIs(server_.url("/echo?literal"));
  EXPECT_EQ(record(literal)->resolveList, nullptr);
  ASSERT_TRUE(finished(literal));
}

TEST_F(RequestDispatchTest, OnlyDebugRequestsTraceLibcurlsVerboseOutput) {
  Retra::Request debug = requestOf(server_.url("/echo?debug"));
  debug.debugIs(true);
  requestIs(debug);
  const RequestKey quiet = requestIs(server_.url("/echo?quiet"));
  ASSERT_TRUE(finished(debug.requestKey()));
  ASSERT_TRUE(finished(quiet));

  std::vector<std::string> requestLines;
  for (const auto& line : trace_.lines()) {
    if (line.function != "curlDebugCB") continue;
    EXPECT_EQ(line.level, 5u);
    if (line.message.starts_with("curl_request_hdr=")) requestLines.push_back(line.message);
  }
  ASSERT_EQ(requestLines.size(), 1u);
  EXPECT_TRUE(requestLines[0].starts_with("curl_request_hdr=GET /echo?debug HTTP/1.1"));
  EXPECT_TRUE(trace_.has(5, "curl_data_in_bytes=6"));
}

TEST_F(RequestDispatchTest, RefusedAddFailsTheRequestAndFreesItsLists) {
  // A transfer that never answers keeps its handle in the multi handle.
  server_.routeIs("/silent", RetraTest::FaultAnswers::silence(server_));
  Retra::Request request = requestOf(server_.url("/silent"));
  request.headerIs("Accept", "text/plain");
  requestIs(request);
  const RequestKey key = request.requestKey();
  ASSERT_EQ(response(key)->requestState(), Retra::stateSendHeader);
  ASSERT_NE(record(key)->headerList, nullptr);

  // Dispatched a second time, the handle is refused: the request fails and is torn down.
  engine_->requestSm(key)->doCurlDispatchRequest();
  EXPECT_EQ(response(key)->lastError(), Retra::errCurlAddHandle);
  EXPECT_EQ(response(key)->requestState(), Retra::stateFinished);
  EXPECT_FALSE(engine_->requestSm(key));
  EXPECT_EQ(EngineTest::countEndingWith(trace_, 1, "] failed to add easy handle to multi"), 1u);
  EXPECT_EQ(EngineTest::countEndingWith(trace_, 9, "] freeing curl request header list"), 1u);
}

}  // namespace
