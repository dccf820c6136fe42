// Dispatch, seen from a real server: the user agent, header lines, methods and bodies,
// credentials, host pinning through the resolve list, verbose tracing, and a refused add.

#include <curl/curl.h>
#include <gtest/gtest.h>

#include <map>
#include <sstream>
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

// The server's record of the request for `path` (with its query), or an empty one.
LoopbackHttpServer::Received receivedFor(const LoopbackHttpServer& server,
                                         const std::string& target) {
  for (const auto& received : server.requests()) {
    if (received.target == target) return received;
  }
  return {};
}

class RequestDispatchTest : public EngineTest::TransferFixture {
 protected:
  void SetUp() override {
    TransferFixture::SetUp();
    server_.routeIs("/echo", LoopbackHttpServer::Answer{200, {}, "answer"});
  }
};

TEST_F(RequestDispatchTest, UserAgentIsTheDefaultUnlessTheClientGivesOne) {
  Retra::Request own = requestOf(server_.url("/echo?own"));
  own.headerIs("User-Agent", "Probe/2.0");
  own.headerIs("X-Token", "abc");
  Retra::Request blank = requestOf(server_.url("/echo?blank"));
  blank.headerIs("User-Agent", "");
  const RequestKey plain = requestIs(server_.url("/echo?plain"));
  requestIs(own);
  requestIs(blank);
  for (const RequestKey& key : {plain, own.requestKey(), blank.requestKey()}) {
    ASSERT_TRUE(finished(key));
    EXPECT_EQ(response(key)->statusCode(), 200);
  }

  EXPECT_EQ(receivedFor(server_, "/echo?plain").headers["user-agent"], "Mozilla/5.0 Retra/1.0.0");
  const auto ownSeen = receivedFor(server_, "/echo?own").headers;
  EXPECT_EQ(ownSeen.at("user-agent"), "Probe/2.0");
  EXPECT_EQ(ownSeen.at("x-token"), "abc");
  // An empty client value leaves the default set, but its line ("User-Agent: ") goes out too,
  // and libcurl takes a header line without content as "send no such header".
  EXPECT_FALSE(receivedFor(server_, "/echo?blank").headers.contains("user-agent"));
  size_t blankLines = 0;
  for (const std::string& message : trace_.messages()) {
    blankLines += message.ends_with("] request header: 'User-Agent: '") ? 1 : 0;
  }
  EXPECT_EQ(blankLines, 1u);
}

TEST_F(RequestDispatchTest, OnlyPostAndPutCarryTheBodyAndHeadGoesOutAsGet) {
  struct Case {
    Retra::Method method;
    std::string query;
    std::string body;
    std::string seenMethod;
    std::string seenBody;
  };
  const std::vector<Case> cases = {
      {Retra::POST, "post", "a=1&b=2", "POST", "a=1&b=2"},
      {Retra::PUT, "put", "payload", "PUT", "payload"},
      {Retra::PUT, "put-empty", "", "PUT", ""},
      {Retra::PATCH, "patch", "ignored", "PATCH", ""},
      {Retra::DELETE, "delete", "ignored", "DELETE", ""},
      {Retra::HEAD, "head", "", "GET", ""},
      {Retra::OPTIONS, "options", "", "GET", ""},
      // Without a body a POST sets only the body's size, which leaves libcurl's method alone.
      {Retra::POST, "post-empty", "", "GET", ""},
  };
  std::vector<RequestKey> keys;
  for (const Case& c : cases) {
    const Retra::Request request = requestOf(server_.url("/echo?" + c.query), c.method, c.body);
    requestIs(request);
    keys.push_back(request.requestKey());
  }
  for (size_t i = 0; i < cases.size(); ++i) {
    SCOPED_TRACE(cases[i].query);
    ASSERT_TRUE(finished(keys[i]));
    EXPECT_EQ(response(keys[i])->lastError(), Retra::errNone);
    // HEAD is fetched with its body.
    EXPECT_EQ(response(keys[i])->body(), "answer");
    const auto seen = receivedFor(server_, "/echo?" + cases[i].query);
    EXPECT_EQ(seen.method, cases[i].seenMethod);
    EXPECT_EQ(seen.body, cases[i].seenBody);
  }
  EXPECT_EQ(receivedFor(server_, "/echo?post").headers["content-type"],
            "application/x-www-form-urlencoded");
  size_t custom = 0;
  for (const std::string& message : trace_.messages()) {
    custom += message.find("] added custom request for ") != std::string::npos ? 1 : 0;
  }
  EXPECT_EQ(custom, 4u);  // two PUTs, PATCH, DELETE
}

TEST_F(RequestDispatchTest, CredentialsGoOnlyWithAnAuthenticationScheme) {
  Retra::Request none = requestOf(server_.url("/echo?none"));
  none.usernameIs("user");
  none.passwordIs("secret");
  Retra::Request basic = requestOf(server_.url("/echo?basic"));
  basic.usernameIs("user");
  basic.passwordIs("secret");
  basic.authTypeIs(Retra::authBasic);
  requestIs(none);
  requestIs(basic);
  ASSERT_TRUE(finished(none.requestKey()));
  ASSERT_TRUE(finished(basic.requestKey()));
  EXPECT_FALSE(receivedFor(server_, "/echo?none").headers.contains("authorization"));
  EXPECT_EQ(receivedFor(server_, "/echo?basic").headers["authorization"], "Basic dXNlcjpzZWNyZXQ=");
}

TEST_F(RequestDispatchTest, ResolveListPinsTheHostToItsResolvedAddresses) {
  const std::string port = std::to_string(server_.port());
  const std::string uri = "http://pinned.test:" + port + "/echo?pinned";
  const RequestKey key = requestIs(uri);
  ASSERT_EQ(response(key)->requestState(), Retra::stateDnsResolving);

  releasedTo(key, "127.0.0.1", "::1");
  ASSERT_EQ(response(key)->requestState(), Retra::stateSendHeader);
  auto* cd = static_cast<Retra::CurlCallbackData*>(engine_->retraCurl(key));
  ASSERT_NE(cd, nullptr);
  // The removal first, then IPv6 before IPv4.
  EXPECT_EQ(entriesOf(cd->resolveList),
            (std::vector<std::string>{"-pinned.test:" + port, "pinned.test:" + port + ":::1",
                                      "pinned.test:" + port + ":127.0.0.1"}));

  // The name exists nowhere but in the list, and the server listens on 127.0.0.1 only.
  ASSERT_TRUE(finished(key));
  EXPECT_EQ(response(key)->lastError(), Retra::errNone);
  EXPECT_EQ(response(key)->statusCode(), 200);
  const auto seen = receivedFor(server_, "/echo?pinned");
  EXPECT_EQ(seen.headers.at("host"), "pinned.test:" + port);

  // A response without host name or port makes no list: libcurl connects as the URI says.
  const RequestKey literal = requestIs(server_.url("/echo?literal"));
  cd = static_cast<Retra::CurlCallbackData*>(engine_->retraCurl(literal));
  EXPECT_EQ(cd->resolveList, nullptr);
  ASSERT_TRUE(finished(literal));
}

TEST_F(RequestDispatchTest, DebugRequestsTraceLibcurlsVerboseOutput) {
  Retra::Request request = requestOf(server_.url("/echo?debug"));
  request.debugIs(true);
  requestIs(request);
  ASSERT_TRUE(finished(request.requestKey()));

  bool requestHeader = false;
  bool responseHeader = false;
  bool dataIn = false;
  for (const auto& line : trace_.lines()) {
    if (line.function != "curlDebugCB") continue;
    EXPECT_EQ(line.level, 5u);
    requestHeader |= line.message.starts_with("curl_request_hdr=GET /echo?debug HTTP/1.1");
    responseHeader |= line.message.starts_with("curl_response_data=HTTP/1.1 200 OK");
    dataIn |= line.message == "curl_data_in_bytes=6";
  }
  EXPECT_TRUE(requestHeader);
  EXPECT_TRUE(responseHeader);
  EXPECT_TRUE(dataIn);

  // Without debug, libcurl says nothing.
  trace_.clear();
  const RequestKey quiet = requestIs(server_.url("/echo?quiet"));
  ASSERT_TRUE(finished(quiet));
  for (const auto& line : trace_.lines()) EXPECT_NE(line.function, "curlDebugCB");
}

TEST_F(RequestDispatchTest, RefusedAddFailsTheRequestAndFreesItsLists) {
  // A transfer that never answers keeps its handle in the multi handle.
  server_.routeIs("/silent", RetraTest::FaultAnswers::silence(server_));
  Retra::Request request = requestOf(server_.url("/silent"));
  request.headerIs("Accept", "text/plain");
  requestIs(request);
  const RequestKey key = request.requestKey();
  ASSERT_EQ(response(key)->requestState(), Retra::stateSendHeader);
  auto* cd = static_cast<Retra::CurlCallbackData*>(engine_->retraCurl(key));
  ASSERT_NE(cd->headerList, nullptr);

  // Dispatched a second time, the handle is refused: the request fails and is torn down.
  engine_->requestSm(key)->doCurlDispatchRequest();
  EXPECT_EQ(response(key)->lastError(), Retra::errCurlAddHandle);
  EXPECT_EQ(response(key)->requestState(), Retra::stateFinished);
  EXPECT_FALSE(engine_->requestSm(key));
  bool traced = false;
  bool freed = false;
  for (const auto& line : trace_.lines()) {
    traced |= line.level == 1 && line.message.ends_with("] failed to add easy handle to multi");
    freed |= line.level == 9 && line.message.ends_with("] freeing curl request header list");
  }
  EXPECT_TRUE(traced);
  EXPECT_TRUE(freed);
}

}  // namespace
