#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "Ipkit/Ip6Addr.h"
#include "Ipkit/IpAddr.h"
#include "Orb/Ptr.h"
#include "Retra/model/Response.h"

namespace {

using Retra::RequestKey;
using Retra::Response;
using Log = std::vector<std::string>;

std::string text(const Orb::String& s) {
  return s.str();
}
std::string text(const Ipkit::IpAddr& a) {
  return a.str().str();
}
std::string text(const Ipkit::Ip6Addr& a) {
  return a.str().str();
}

// Records every notification of a response by callback name ("onHeader(Accept)", "onHeader()",
// "onHeaderImmediate"), and can react to each.
#define RECORD(kind, ...) RECORD_##kind(__VA_ARGS__)
#define RECORD_FIXED(...)
#define RECORD_DERIVED(...)
#define RECORD_OPERATION(...)
#define RECORD_SCALAR(name, Type, nameIs, onName, initial) \
  void onName() override {                                 \
    record(#onName);                                       \
  }
#define RECORD_COUNTER(name, Type, nameIs, nameInc, onName, initial) \
  void onName() override {                                           \
    record(#onName);                                                 \
  }
#define RECORD_CHILD(name, Type, nameIs, nameDel, onName) \
  void onName() override {                                \
    record(#onName);                                      \
  }
#define RECORD_COLLECTION(name, Key, Value, nameIs, nameDel, nameDelAll, onName, onNameImmediate) \
  void onName(Orb::ParamType<Key> key) override {                                                 \
    record(#onName "(" + text(key) + ")");                                                        \
  }                                                                                               \
  void onName() override {                                                                        \
    record(#onName "()");                                                                         \
  }                                                                                               \
  void onNameImmediate() override {                                                               \
    record(#onNameImmediate);                                                                     \
  }

class Recorder : public Response::NotifieeConst {
 public:
  Log log;
  std::function<void(const std::string&)> reaction;

  RETRA_RESPONSE_ATTRIBUTES(RECORD)

 private:
  void record(const std::string& entry) {
    log.push_back(entry);
    if (reaction) reaction(entry);
  }
};

// Notes when the observed entity goes away.
template <class Entity>
class GoneWatcher : public Entity::NotifieeConst {
 public:
  GoneWatcher(Log* log, std::string tag) : log_(log), tag_(std::move(tag)) {
    this->isWeakReferenceIs(true);
  }

 protected:
  void handleNotifierGone() override {
    log_->push_back(tag_);
    Entity::NotifieeConst::handleNotifierGone();
  }
  // A dying response drops its observers before it releases the rest.
  void handleDroppedFromList() override {
    log_->push_back(tag_);
    Entity::NotifieeConst::handleDroppedFromList();
  }

 private:
  Log* log_;
  std::string tag_;
};

struct ResponseTest : testing::Test {
  RequestKey key{Retra::GET, "http://127.0.0.1:8080/index.html"};
  Orb::Ptr<Response> response = Orb::allocate<Response>(key);
  Orb::Ptr<Recorder> recorder = Orb::allocate<Recorder>();
  void SetUp() override { recorder->notifierIs(response); }
  Log& log() { return recorder->log; }
};

TEST_F(ResponseTest, ANewResponseHoldsTheInitialValues) {
  EXPECT_EQ(response->name(), "GET http://127.0.0.1:8080/index.html");
  EXPECT_EQ(response->method(), Retra::GET);
  EXPECT_EQ(response->uri(), key.uri());
  EXPECT_FALSE(response->finished());
  EXPECT_FALSE(response->sslVerifyPeer());  // unlike a request's default
  EXPECT_EQ(response->timeoutRefresh(), 1800u);
  EXPECT_EQ(response->contentLengthUpload(), -1);
  EXPECT_EQ(response->contentLengthDownload(), -1);
  EXPECT_EQ(response->counter(), nullptr);
  EXPECT_TRUE(log().empty());
}

TEST_F(ResponseTest, ScalarsNotifyOnlyOnRealChange) {
  response->statusCodeIs(200);
  response->statusCodeIs(200);
  response->lastUpdateTimeIs(12.5);
  response->lastUpdateTimeIs(12.5);
  response->bodyIs("<html/>");
  response->bodyIs(Orb::String(std::string("<html/>")));  // another buffer, equal content
  response->contentLengthDownloadIs(-1);                  // already -1
  response->sslVerifyPeerIs(false);                       // already false
  response->requestStateIs(Retra::stateFinished);
  response->lastErrorIs(Retra::errTimeout);
  response->hostIs("localhost");
  response->portIs(8080);
  EXPECT_EQ(log(), (Log{"onStatusCode", "onLastUpdateTime", "onBody", "onRequestState",
                        "onLastError", "onHost", "onPort"}));
  EXPECT_TRUE(response->finished());
  EXPECT_EQ(response->statusCode(), 200);
  EXPECT_EQ(response->body(), "<html/>");
}

TEST_F(ResponseTest, NumRequestIncAddsWrapsAndNotifiesOnlyOnChange) {
  EXPECT_EQ(response->numRequestInc(1), 1u);
  EXPECT_EQ(response->numRequestInc(0), 1u);
  EXPECT_EQ(log(), (Log{"onNumRequest"}));
  response->numRequestIs(UINT32_MAX);
  EXPECT_EQ(response->numRequestInc(2), 1u);
  EXPECT_EQ(response->numRequest(), 1u);
  EXPECT_EQ(log().size(), 3u);
}

TEST_F(ResponseTest, CollectionChangesNotifyTheKeyAndTheImmediateForm) {
  response->headerIs("Server", "nginx");
  response->headerIs("Server", "nginx");
  response->headerIs("Server", "Apache");
  response->requestheaderIs("Accept", "*/*");
  EXPECT_FALSE(response->headerDel("Missing"));
  EXPECT_TRUE(response->headerDel("Server"));
  EXPECT_EQ(log(), (Log{"onHeader(Server)", "onHeaderImmediate", "onHeader(Server)",
                        "onHeaderImmediate", "onRequestheader(Accept)", "onRequestheaderImmediate",
                        "onHeader(Server)", "onHeaderImmediate"}));
  EXPECT_EQ(response->requestheader("Accept"), "*/*");
  EXPECT_EQ(response->header("Server"), "");

  log().clear();
  Ipkit::IpAddr v4("127.0.0.1");
  Ipkit::Ip6Addr v6("::1");
  response->ipAddressIs(v4, true);
  response->ipAddressIs(Ipkit::IpAddr("127.0.0.1"), true);
  response->ipAddressIs(v4, false);
  response->ip6AddressIs(v6, true);
  response->ip6AddressIs(v6, true);
  EXPECT_EQ(log(), (Log{"onIpAddress(127.0.0.1)", "onIpAddressImmediate", "onIpAddress(127.0.0.1)",
                        "onIpAddressImmediate", "onIp6Address(::1)", "onIp6AddressImmediate"}));
  EXPECT_FALSE(response->ipAddress(v4));
  EXPECT_EQ(response->ipAddress().size(), 1u);
  EXPECT_TRUE(response->ip6Address(v6));
}

TEST_F(ResponseTest, DelAllNotifiesEachMemberThenTheCollectionOnce) {
  response->headerIs("A", "1");
  response->headerIs("B", "2");
  log().clear();
  response->headerDelAll();
  EXPECT_TRUE(response->header().empty());
  ASSERT_EQ(log().size(), 5u);
  Log members{log()[0], log()[2]};
  std::sort(members.begin(), members.end());
  EXPECT_EQ(members, (Log{"onHeader(A)", "onHeader(B)"}));
  EXPECT_EQ(log()[1], "onHeaderImmediate");
  EXPECT_EQ(log()[3], "onHeaderImmediate");
  EXPECT_EQ(log()[4], "onHeader()");

  log().clear();
  response->headerDelAll();     // nothing to remove: silent
  response->ipAddressDelAll();  // likewise
  EXPECT_TRUE(log().empty());
}

TEST_F(ResponseTest, AnObserverMayDropTheLastReferenceInsideAMutator) {
  response->headerIs("A", "1");
  response->headerIs("B", "2");
  log().clear();
  recorder->isWeakReferenceIs(true);
  // The first callback drops the only strong reference; the mutator finishes its work first.
  recorder->reaction = [&](const std::string&) { response = nullptr; };
  Response* raw = response.ptr();
  raw->headerDelAll();
  EXPECT_EQ(recorder->notifierPtr(), nullptr);  // gone once the mutator was done
  EXPECT_EQ(log().size(), 5u);
}

TEST_F(ResponseTest, ChildrenAreCreatedOnceUnderTheResponse) {
  auto counter = response->counterIs();
  EXPECT_EQ(response->counterIs(), counter);
  EXPECT_EQ(response->counter(), counter);
  EXPECT_EQ(counter->name(), "counter");
  EXPECT_EQ(counter->parent(), response.ptr());
  EXPECT_EQ(counter->parentAttrName(), "counter");
  EXPECT_EQ(response->entity("counter"), counter);
  auto timer = response->timerIs();
  EXPECT_EQ(timer->fullName(), "GET http://127.0.0.1:8080/index.html/timer");
  EXPECT_EQ(timer->parentAttrId(), Response::Attr::timer);
  EXPECT_EQ(log(), (Log{"onCounter", "onTimer"}));

  EXPECT_EQ(response->counterDel(), counter);
  EXPECT_EQ(counter->parent(), nullptr);
  EXPECT_EQ(response->counter(), nullptr);
  EXPECT_EQ(response->counterDel(), nullptr);
  EXPECT_EQ(log(), (Log{"onCounter", "onTimer", "onCounter"}));
}

TEST_F(ResponseTest, ResetClearsTheFetchResultInOrderAndKeepsTheRest) {
  response->requestStateIs(Retra::stateFinished);
  response->usernameIs("bob");
  response->timeoutRefreshIs(30);
  response->schemeIs(Retra::https);
  response->statusCodeIs(404);
  response->lastErrorIs(Retra::errHttpStatusCode);
  response->effectiveUrlIs("http://127.0.0.1:8080/");
  response->lastErrorMessageIs("not found");
  response->lastUpdateTimeIs(1.0);
  response->lastChangeTimeIs(2.0);
  response->requestheaderIs("Accept", "*/*");
  response->headerIs("Server", "nginx");
  response->bodyIs("gone");
  response->contentTypeIs("text/plain");
  response->contentLengthUploadIs(0);
  response->contentLengthDownloadIs(4);
  response->resolvedIs(true);
  response->hostIs("localhost");
  response->ipAddressIs(Ipkit::IpAddr("127.0.0.1"), true);
  response->ip6AddressIs(Ipkit::Ip6Addr("::1"), true);
  response->portIs(8080);
  response->numRequestInc(3);
  response->counterIs()->bytesDownloadInc(150);
  response->timerIs()->totalInc(0.5);
  log().clear();

  response->doReset();
  EXPECT_EQ(log(), (Log{"onStatusCode",
                        "onLastError",
                        "onEffectiveUrl",
                        "onLastErrorMessage",
                        "onLastUpdateTime",
                        "onLastChangeTime",
                        "onHeader(Server)",
                        "onHeaderImmediate",
                        "onHeader()",
                        "onBody",
                        "onContentType",
                        "onContentLengthUpload",
                        "onContentLengthDownload",
                        "onResolved",
                        "onHost",
                        "onIpAddress(127.0.0.1)",
                        "onIpAddressImmediate",
                        "onIpAddress()",
                        "onIp6Address(::1)",
                        "onIp6AddressImmediate",
                        "onIp6Address()",
                        "onPort"}));
  EXPECT_EQ(response->contentLengthDownload(), -1);
  EXPECT_TRUE(response->ipAddress().empty());
  // Kept: state, settings, scheme, sent headers, children and the dispatch count.
  EXPECT_EQ(response->requestState(), Retra::stateFinished);
  EXPECT_EQ(response->username(), "bob");
  EXPECT_EQ(response->timeoutRefresh(), 30u);
  EXPECT_EQ(response->scheme(), Retra::https);
  EXPECT_EQ(response->requestheader("Accept"), "*/*");
  EXPECT_EQ(response->numRequest(), 3u);
  EXPECT_EQ(response->counter()->bytesDownload(), 150u);
  EXPECT_EQ(response->timer()->total(), 0.5);

  log().clear();
  response->doReset();  // nothing left to clear: silent
  EXPECT_TRUE(log().empty());
}

TEST_F(ResponseTest, DestructionReleasesTheCounterThenTheTimerThenDropsObservers) {
  Log gone;
  auto onCounter = Orb::allocate<GoneWatcher<Retra::RequestCounter>>(&gone, "counter");
  auto onTimer = Orb::allocate<GoneWatcher<Retra::RequestTimer>>(&gone, "timer");
  auto onResponse = Orb::allocate<GoneWatcher<Response>>(&gone, "response");
  // Children are created timer first, so that release order is not creation order.
  onTimer->notifierIs(response->timerIs());
  onCounter->notifierIs(response->counterIs());
  onResponse->notifierIs(response);
  recorder = nullptr;
  response = nullptr;
  EXPECT_EQ(gone, (Log{"counter", "timer", "response"}));
}

TEST_F(ResponseTest, AttributesAreNumberedInDeclarationOrderFrom258) {
  EXPECT_EQ(Response::Attr::requestKey, 258u);
  EXPECT_EQ(Response::Attr::method, 259u);
  EXPECT_EQ(Response::Attr::finished, 272u);
  EXPECT_EQ(Response::Attr::statusCode, 274u);
  EXPECT_EQ(Response::Attr::requestheader, 280u);
  EXPECT_EQ(Response::Attr::counter, 286u);
  EXPECT_EQ(Response::Attr::port, 293u);
  EXPECT_EQ(Response::Attr::doReset, 294u);
  const Orb::TypeNode* node = response->typeNode();
  EXPECT_EQ(node->name(), "Retra::Response");
  EXPECT_EQ(node->attributes().size(), 37u);
  EXPECT_EQ(node->attributeName(291), "ipAddress");
  EXPECT_EQ(node->attributeId("lastErrorMessage"), 277u);
}

}  // namespace
