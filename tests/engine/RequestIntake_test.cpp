// Request intake through a real root: responses prepared from requests, URIs checked, literal
// hosts ready at once, host names handed to the resolver, withdrawals and changes.

#include <gtest/gtest.h>

#include <limits>
#include <sstream>
#include <string>
#include <vector>

#include "Orb/ActivityManager.h"
#include "Retra/request/CurlCallbackData.h"
#include "Retra/request/RequestSm.h"
#include "dnsr/support/Dnsmasq.h"
#include "engine/support/EngineFixture.h"

namespace {

using Retra::RequestKey;
using Retra::Response;

std::string pointerText(const void* p) {
  std::ostringstream out;
  out << p;
  return out.str();
}

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

class RequestIntakeTest : public EngineTest::RootFixture {
 protected:
  void SetUp() override { rootIs(silent_.server()); }

  DnsrTest::SilentServer silent_;  // a resolver that never answers: host names keep waiting
};

TEST_F(RequestIntakeTest, Ipv4LiteralIsReadyAtOnceWithTheRequestsSettings) {
  Retra::Request request(RequestKey(Retra::GET, "http://127.0.0.1/index.html"));
  request.headerIs("Accept", "text/plain");
  request.bodyIs("payload");
  request.timeoutConnectIs(7);
  request.timeoutRequestIs(9);
  request.timeoutRefreshIs(30);
  request.usernameIs("user");
  request.debugIs(true);
  requestIs(request);

  auto response = this->response("http://127.0.0.1/index.html");
  ASSERT_TRUE(response);
  // Ready, and so dispatched at once by the response's reactor.
  EXPECT_EQ(response->requestState(), Retra::stateSendHeader);
  EXPECT_EQ(response->lastError(), Retra::errNone);
  EXPECT_TRUE(response->resolved());
  EXPECT_EQ(response->port(), 80);
  EXPECT_EQ(response->scheme(), Retra::http);
  EXPECT_TRUE(response->host().empty());
  EXPECT_TRUE(root_->dnsrRequest()->request().empty());
  EXPECT_EQ(response->requestheader("Accept"), "text/plain");
  EXPECT_EQ(response->timeoutConnect(), 7);
  EXPECT_EQ(response->timeoutRequest(), 9);
  EXPECT_EQ(response->timeoutRefresh(), 30u);
  EXPECT_EQ(response->username(), "user");
  EXPECT_TRUE(response->sslVerifyPeer());
  EXPECT_TRUE(response->debug());
  EXPECT_EQ(response->numRequest(), 1u);
  EXPECT_TRUE(response->counter());
  EXPECT_TRUE(response->timer());

  // The request's state machine, its record and its easy handle are registered under the key.
  const RequestKey key = request.requestKey();
  auto sm = engine_->requestSm(key);
  ASSERT_TRUE(sm);
  EXPECT_EQ(sm->response(), response);
  auto* cd = static_cast<Retra::CurlCallbackData*>(engine_->retraCurl(key));
  ASSERT_NE(cd, nullptr);
  EXPECT_EQ(sm->curlData(), cd);
  ASSERT_NE(cd->curlHandle, nullptr);
  EXPECT_EQ(cd->curlMultiHandle, engine_->curlMultiHandle());
  EXPECT_EQ(cd->response, response.ptr());
  EXPECT_EQ(cd->requestBody, "payload");
  EXPECT_EQ(engine_->curlHandle(cd->curlHandle), key);

  const std::string prefix = "[" + pointerText(sm.ptr()) + "] ";
  EXPECT_TRUE(trace_.has(2, prefix + "parsing request URI"));
  EXPECT_TRUE(trace_.has(9, prefix + "host=127.0.0.1 port=80 scheme=http"));
  EXPECT_TRUE(trace_.has(9, "Copying header Accept=text/plain"));
  EXPECT_TRUE(trace_.has(9, "num outstanding requests=1"));
  EXPECT_TRUE(trace_.has(2, prefix + "building state machine for GET http://127.0.0.1/index.html"));
}

TEST_F(RequestIntakeTest, Ipv6LiteralTakesTheSchemesDefaultPort) {
  requestIs("https://[::1]/a");
  requestIs("http://[::1]:8080/b");
  auto secure = response("https://[::1]/a");
  ASSERT_TRUE(secure);
  EXPECT_EQ(secure->requestState(), Retra::stateSendHeader);
  EXPECT_EQ(secure->port(), 443);
  EXPECT_EQ(secure->scheme(), Retra::https);
  EXPECT_TRUE(secure->resolved());
  EXPECT_TRUE(secure->host().empty());
  auto plain = response("http://[::1]:8080/b");
  ASSERT_TRUE(plain);
  EXPECT_EQ(plain->port(), 8080);
  EXPECT_EQ(plain->requestState(), Retra::stateSendHeader);
  EXPECT_TRUE(root_->dnsrRequest()->request().empty());
}

TEST_F(RequestIntakeTest, HostNameWaitsForOneSharedResolverRequest) {
  requestIs("https://a.test:8443/one");
  auto first = response("https://a.test:8443/one");
  ASSERT_TRUE(first);
  EXPECT_EQ(first->requestState(), Retra::stateDnsResolving);
  EXPECT_EQ(first->host(), "a.test");
  EXPECT_EQ(first->port(), 8443);
  EXPECT_EQ(first->scheme(), Retra::https);
  EXPECT_FALSE(first->resolved());
  EXPECT_EQ(resolverRequest("a.test"), 1u);
  EXPECT_TRUE(trace_.has(9, "Dnsr query host='a.test' refCount=0"));

  trace_.clear();
  requestIs("http://a.test/two");
  auto second = response("http://a.test/two");
  ASSERT_TRUE(second);
  EXPECT_EQ(second->requestState(), Retra::stateDnsResolving);
  EXPECT_EQ(second->port(), 80);
  EXPECT_EQ(resolverRequest("a.test"), 1u);  // not raised
  EXPECT_TRUE(trace_.has(9, "Dnsr query host='a.test' refCount=1"));
  EXPECT_TRUE(trace_.has(9, "Already resolving host='a.test'"));
}

TEST_F(RequestIntakeTest, BadUrisFinishWithUriParseAndStoreNothing) {
  for (const char* uri : {"not a uri", "http://a.test:80a/", "http://[::1/"}) {
    SCOPED_TRACE(uri);
    trace_.clear();
    const RequestKey key = requestIs(uri);
    auto response = this->response(key);
    ASSERT_TRUE(response);
    EXPECT_EQ(response->requestState(), Retra::stateFinished);
    EXPECT_EQ(response->lastError(), Retra::errUriParse);
    EXPECT_TRUE(response->host().empty());
    EXPECT_EQ(response->port(), 0);
    EXPECT_FALSE(response->resolved());
    // A finished response has its machine dropped at once.
    EXPECT_FALSE(engine_->requestSm(key));
    EXPECT_TRUE(trace_.has(1, builtPrefix(trace_, uri) + "URI parsing failed"));
    EXPECT_TRUE(trace_.has(9, "num running requests=1"));
  }
  EXPECT_TRUE(root_->dnsrRequest()->request().empty());
}

TEST_F(RequestIntakeTest, DisallowedSchemeFailsAfterTheResolverRequestWasFiled) {
  const RequestKey key = requestIs("ftp://files.test/pub/a.txt");
  auto response = this->response(key);
  ASSERT_TRUE(response);
  EXPECT_EQ(response->requestState(), Retra::stateFinished);
  EXPECT_EQ(response->lastError(), Retra::errUnsupportedScheme);
  EXPECT_EQ(response->host(), "files.test");
  EXPECT_EQ(response->port(), 0);
  EXPECT_EQ(resolverRequest("files.test"), 1u);
  EXPECT_TRUE(trace_.has(
      1, builtPrefix(trace_, "ftp://files.test/pub/a.txt") + "disallowed request scheme='ftp'"));

  // An address literal under another scheme fails the same way, with no resolver request.
  requestIs("gopher://127.0.0.1:70/");
  EXPECT_EQ(this->response("gopher://127.0.0.1:70/")->lastError(), Retra::errUnsupportedScheme);
  EXPECT_EQ(root_->dnsrRequest()->request().size(), 1u);
}

TEST_F(RequestIntakeTest, ErrorIsFinalWhenTheStateChanges) {
  // The response exists before its request, so the watch sees every state of the intake.
  const RequestKey key(Retra::GET, "ftp://127.0.0.1/");
  auto response = root_->retraResponse()->responseIs(key);
  auto watch = Orb::allocate<StateWatch>();
  watch->notifierIs(response);
  requestIs(Retra::Request(key));
  ASSERT_FALSE(watch->seen.empty());
  EXPECT_EQ(watch->seen.back(), std::make_pair(Retra::stateFinished, Retra::errUnsupportedScheme));
}

TEST_F(RequestIntakeTest, ChangedRequestGetsAFreshStateMachineAndRecord) {
  Retra::Request request(RequestKey(Retra::GET, "http://127.0.0.1:8080/x"));
  requestIs(request);
  auto response = this->response(request.requestKey());
  const void* firstSm = engine_->requestSm(request.requestKey()).ptr();
  void* firstRecord = engine_->retraCurl(request.requestKey());
  ASSERT_NE(firstSm, nullptr);

  request.timeoutRefreshIs(5);
  requestIs(request);
  EXPECT_EQ(this->response(request.requestKey()), response);
  EXPECT_EQ(response->numRequest(), 2u);
  EXPECT_EQ(response->timeoutRefresh(), 5u);
  EXPECT_EQ(response->requestState(), Retra::stateSendHeader);
  auto secondSm = engine_->requestSm(request.requestKey());
  ASSERT_TRUE(secondSm);
  EXPECT_NE(secondSm.ptr(), firstSm);
  EXPECT_NE(engine_->retraCurl(request.requestKey()), firstRecord);
  EXPECT_EQ(secondSm->curlData(), engine_->retraCurl(request.requestKey()));
  // The first machine was torn down when the second replaced it.
  EXPECT_EQ(response->counter()->numFinish(), 1u);

  // An unchanged request is not taken in again.
  requestIs(request);
  EXPECT_EQ(response->numRequest(), 2u);
}

TEST_F(RequestIntakeTest, WithdrawalRemovesResponseStateMachineAndResolverRequest) {
  const RequestKey one = requestIs("http://shared.test/1");
  const RequestKey two = requestIs("http://shared.test/2");
  EXPECT_EQ(resolverRequest("shared.test"), 1u);

  requestDel(one);
  EXPECT_FALSE(response(one));
  EXPECT_FALSE(engine_->requestSm(one));
  EXPECT_FALSE(engine_->retraResponseReactor(one));
  // Removed although the other request still waits for the host.
  EXPECT_EQ(resolverRequest("shared.test"), 0u);
  ASSERT_TRUE(response(two));
  EXPECT_EQ(response(two)->requestState(), Retra::stateDnsResolving);

  // A literal host has no resolver request to remove.
  const RequestKey literal = requestIs("http://127.0.0.1/");
  requestDel(literal);
  EXPECT_FALSE(response(literal));
  EXPECT_FALSE(engine_->requestSm(literal));
}

TEST_F(RequestIntakeTest, ResetRequestReturnsTheResponseToNotInit) {
  const RequestKey key = requestIs("http://127.0.0.1:9/");
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
