// Request intake through a real root: responses prepared from requests, URIs checked, literal
// hosts ready at once, host names handed to the resolver, withdrawals and changes.

#include <gtest/gtest.h>

#include <limits>
#include <sstream>
#include <string>
#include <vector>

#include "Orb/ActivityManager.h"
#include "Retra/request/RequestSm.h"
#include "engine/support/TransferFixture.h"
#include "support/FaultAnswers.h"

namespace {

using Retra::RequestKey;
using Retra::Response;

// The trace prefix of the state machine built for `uri`, read from its build line: a request
// that fails intake has its machine dropped again before the test can ask for it.
std::string builtPrefix(const EngineTest::TraceCapture& trace, const std::string& uri) {
  const std::string built = "] building state machine for GET " + uri;
  for (const std::string& message : trace.messages()) {
    if (message.ends_with(built)) return message.substr(0, message.size() - built.size()) + "] ";
  }
  return "<no machine built for " + uri + ">";
}

// Notes the response's lastError each time its requestState changes.
class StateWatch : public Response::NotifieeConst {
 public:
  void onRequestState() override {
    seen.emplace_back(notifier()->requestState(), notifier()->lastError());
  }
  std::vector<std::pair<Retra::RequestState, Retra::Error>> seen;
};

// The resolver never answers: host names keep waiting.
using RequestIntakeTest = EngineTest::TransferFixture;

TEST_F(RequestIntakeTest, LiteralReadyAtOnceWithTheRequestsSettingsAndItsOwnMachine) {
  Retra::Request request = requestOf("http://127.0.0.1/index.html", Retra::GET, "payload");
  request.headerIs("Accept", "text/plain");
  request.timeoutConnectIs(7);
  request.timeoutRefreshIs(30);
  request.usernameIs("user");
  request.debugIs(true);
  requestIs(request);
  const RequestKey key = request.requestKey();

  auto response = this->response(key);
  ASSERT_TRUE(response);
  EXPECT_EQ(response->requestState(), Retra::stateSendHeader);  // ready, so dispatched at once
  EXPECT_EQ(response->requestheader("Accept"), "text/plain");
  EXPECT_EQ(response->timeoutConnect(), 7);
  EXPECT_EQ(response->timeoutRefresh(), 30u);
  EXPECT_EQ(response->username(), "user");
  EXPECT_TRUE(response->debug());
  EXPECT_EQ(response->numRequest(), 1u);
  EXPECT_TRUE(response->counter() && response->timer());

  // Its machine and the machine's record are registered under the key.
  auto sm = engine_->requestSm(key);
  ASSERT_TRUE(sm);
  EXPECT_EQ(sm->response(), response);
  EXPECT_EQ(sm->curlData(), engine_->retraCurl(key));

  std::ostringstream prefix;
  prefix << "[" << static_cast<const void*>(sm.ptr()) << "] ";
  EXPECT_TRUE(trace_.has(2, prefix.str() + "parsing request URI"));
  EXPECT_TRUE(trace_.has(9, prefix.str() + "host=127.0.0.1 port=80 scheme=http"));
  EXPECT_TRUE(trace_.has(9, "Copying header Accept=text/plain"));
  EXPECT_TRUE(trace_.has(9, "num outstanding requests=1"));
}

TEST_F(RequestIntakeTest, HostPortAndSchemeComeFromTheUriAndNamesShareOneResolverRequest) {
  struct Case {
    const char* uri;
    Retra::RequestState state;
    const char* host;
    uint16_t port;
    Retra::Scheme scheme;
  };
  const Case cases[] = {
      {"https://[::1]/a", Retra::stateSendHeader, "", 443, Retra::https},
      {"http://[::1]:8080/b", Retra::stateSendHeader, "", 8080, Retra::http},
      {"https://a.test:8443/one", Retra::stateDnsResolving, "a.test", 8443, Retra::https},
      {"http://a.test/two", Retra::stateDnsResolving, "a.test", 80, Retra::http},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.uri);
    auto response = this->response(requestIs(c.uri));
    ASSERT_TRUE(response);
    EXPECT_EQ(response->requestState(), c.state);
    EXPECT_EQ(response->host(), c.host);
    EXPECT_EQ(response->port(), c.port);
    EXPECT_EQ(response->scheme(), c.scheme);
    EXPECT_EQ(response->resolved(), c.state == Retra::stateSendHeader);
  }
  // The second request for the host raises no count: one resolver request serves both.
  EXPECT_EQ(root_->dnsrRequest()->request().size(), 1u);
  EXPECT_EQ(resolverRequest("a.test"), 1u);
  EXPECT_TRUE(trace_.has(9, "Dnsr query host='a.test' refCount=1"));
  EXPECT_TRUE(trace_.has(9, "Already resolving host='a.test'"));
}

TEST_F(RequestIntakeTest, BadUrisAndOtherSchemesFinishWithTheirErrorWhichIsSetBeforeTheState) {
  struct Case {
    const char* uri;
    Retra::Error error;
    const char* trace;
    const char* host;
    uint16_t port;
  };
  const Case cases[] = {
      {"not a uri", Retra::errUriParse, "URI parsing failed", "", 0},
      {"http://a.test:80a/", Retra::errUriParse, "URI parsing failed", "", 0},
      {"http://[::1/", Retra::errUriParse, "URI parsing failed", "", 0},
      // The scheme is checked after the host was handed to the resolver.
      {"ftp://files.test/pub/a.txt", Retra::errUnsupportedScheme, "disallowed request scheme='ftp'",
       "files.test", 0},
      {"gopher://127.0.0.1:70/", Retra::errUnsupportedScheme, "disallowed request scheme='gopher'",
       "", 70},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.uri);
    const RequestKey key(Retra::GET, c.uri);
    // The response exists before its request, so the watch sees every state of the intake.
    auto response = root_->retraResponse()->responseIs(key);
    auto watch = Orb::allocate<StateWatch>();
    watch->notifierIs(response);
    requestIs(Retra::Request(key));
    ASSERT_FALSE(watch->seen.empty());
    EXPECT_EQ(watch->seen.back(), std::make_pair(Retra::stateFinished, c.error));
    EXPECT_EQ(response->host(), c.host);
    EXPECT_EQ(response->port(), c.port);
    if (c.error == Retra::errUriParse) {
      EXPECT_FALSE(response->resolved());
    }
    EXPECT_FALSE(engine_->requestSm(key));  // a finished response has its machine dropped
    EXPECT_TRUE(trace_.has(1, builtPrefix(trace_, c.uri) + c.trace));
  }
  EXPECT_EQ(resolverRequest("files.test"), 1u);
  EXPECT_EQ(root_->dnsrRequest()->request().size(), 1u);
}

TEST_F(RequestIntakeTest, ChangedRequestGetsAFreshStateMachineAndRecord) {
  Retra::Request request = requestOf("http://127.0.0.1:8080/x");
  requestIs(request);
  const RequestKey key = request.requestKey();
  auto response = this->response(key);
  const void* firstSm = engine_->requestSm(key).ptr();
  void* firstRecord = engine_->retraCurl(key);
  ASSERT_NE(firstSm, nullptr);

  request.timeoutRefreshIs(5);
  requestIs(request);
  EXPECT_EQ(this->response(key), response);
  EXPECT_EQ(response->numRequest(), 2u);
  EXPECT_EQ(response->timeoutRefresh(), 5u);
  EXPECT_EQ(response->requestState(), Retra::stateSendHeader);
  auto secondSm = engine_->requestSm(key);
  ASSERT_TRUE(secondSm);
  EXPECT_NE(secondSm.ptr(), firstSm);
  EXPECT_NE(engine_->retraCurl(key), firstRecord);
  EXPECT_EQ(secondSm->curlData(), engine_->retraCurl(key));
  // The first machine was torn down when the second replaced it.
  EXPECT_EQ(response->counter()->numFinish(), 1u);

  requestIs(request);  // unchanged: not taken in again
  EXPECT_EQ(response->numRequest(), 2u);
}

TEST_F(RequestIntakeTest, WithdrawalRemovesResponseMachineAndTheHostsResolverRequestAndRecord) {
  const RequestKey one = requestIs("http://shared.test/1");
  const RequestKey two = requestIs("http://shared.test/2");
  ASSERT_TRUE(root_->dnsrRecord()->record("shared.test"));
  EXPECT_TRUE(engine_->dnsrRecordReactor("shared.test"));

  requestDel(one);
  EXPECT_FALSE(response(one));
  EXPECT_FALSE(engine_->requestSm(one));
  EXPECT_FALSE(engine_->retraResponseReactor(one));
  // Removed although the other request still waits for the host, which is left waiting.
  EXPECT_EQ(resolverRequest("shared.test"), 0u);
  EXPECT_FALSE(root_->dnsrRecord()->record("shared.test"));
  EXPECT_FALSE(engine_->dnsrRecordReactor("shared.test"));
  EXPECT_EQ(response(two)->requestState(), Retra::stateDnsResolving);

  const RequestKey literal = requestIs("http://127.0.0.1/");  // no resolver request to remove
  requestDel(literal);
  EXPECT_FALSE(response(literal) || engine_->requestSm(literal));
}

TEST_F(RequestIntakeTest, ResetRequestReturnsTheResponseToNotInit) {
  server_.routeIs("/silent", RetraTest::FaultAnswers::silence(server_));
  const RequestKey key = requestIs(server_.url("/silent"));  // still under way when reset
  auto response = this->response(key);
  Orb::activityManager()->runOnce(0);  // let the refresh wake-up armed by the build pass
  engine_->refreshClock()->timeMinIs(std::numeric_limits<double>::infinity());

  engine_->doResetRequest(key);
  EXPECT_EQ(response->requestState(), Retra::stateNotInit);
  EXPECT_FALSE(engine_->requestSm(key));
  EXPECT_FALSE(response->resolved());
  EXPECT_EQ(response->port(), 0);
  EXPECT_EQ(response->counter()->numFinish(), 1u);
  EXPECT_LE(engine_->refreshClock()->timeMin(), Orb::System::currentTime());
}

}  // namespace
