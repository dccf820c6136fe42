#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <string>
#include <vector>

#include "Orb/Ptr.h"
#include "Retra/model/RequestDir.h"

namespace {

using Retra::Request;
using Retra::RequestDir;
using Retra::RequestKey;
using Log = std::vector<std::string>;

// Records the directory's notifications as "uri" (keyed) and "*" (immediate), and can react.
class Recorder : public RequestDir::NotifieeConst {
 public:
  Log log;
  std::function<void(const RequestKey&)> reaction;

  void onRequest(const RequestKey& key) override {
    log.push_back(key.uri().str());
    if (reaction) reaction(key);
  }
  void onRequestImmediate() override { log.push_back("*"); }
};

struct RequestDirTest : testing::Test {
  Orb::Ptr<RequestDir> dir = Orb::allocate<RequestDir>("retraRequest");
  Orb::Ptr<Recorder> recorder = Orb::allocate<Recorder>();
  RequestKey a{Retra::GET, "a"};
  RequestKey b{Retra::GET, "b"};
  void SetUp() override { recorder->notifierIs(dir); }
};

TEST_F(RequestDirTest, NotifiesOnlyWhenTheStoredValueReallyChanges) {
  Request request(a);
  dir->requestIs(request);
  EXPECT_EQ(recorder->log, (Log{"a", "*"}));
  dir->requestIs(request);
  dir->requestIs(Request(request));
  EXPECT_EQ(recorder->log.size(), 2u);

  request.timeoutRefreshIs(10);
  dir->requestIs(request);
  EXPECT_EQ(dir->request(a).timeoutRefresh(), 10u);
  request.headerIs("Accept", "text/plain");
  dir->requestIs(request);
  request.headerIs("Accept", "text/html");
  dir->requestIs(request);
  EXPECT_EQ(recorder->log, (Log{"a", "*", "a", "*", "a", "*", "a", "*"}));
  EXPECT_EQ(dir->request(a).header("Accept"), "text/html");
  EXPECT_EQ(dir->request().size(), 1u);
}

TEST_F(RequestDirTest, AnAbsentKeyGivesARequestOnTheDefaultKey) {
  dir->requestIs(Request(a));
  Request missing = dir->request(b);
  EXPECT_EQ(missing.requestKey(), RequestKey());
  EXPECT_TRUE(!missing);
  EXPECT_EQ(dir->request(a).requestKey(), a);
}

TEST_F(RequestDirTest, RemovalReturnsTheValueAndNotifiesOnlyWhenSomethingWent) {
  Request request(a);
  request.bodyIs("payload");
  dir->requestIs(request);
  recorder->log.clear();

  bool goneInCallback = false;
  recorder->reaction = [&](const RequestKey& key) {
    goneInCallback = dir->request().count(key) == 0;
  };
  Request removed = dir->requestDel(a);
  EXPECT_TRUE(removed == request);
  EXPECT_TRUE(goneInCallback);
  EXPECT_EQ(recorder->log, (Log{"a", "*"}));

  (void)dir->requestDel(a);
  EXPECT_EQ(recorder->log.size(), 2u);

  dir->requestIs(Request(b));
  recorder->log.clear();
  EXPECT_EQ(dir->requestDel(dir->request().begin()).requestKey(), b);
  EXPECT_EQ(recorder->log, (Log{"b", "*"}));
  EXPECT_TRUE(dir->request().empty());
}

TEST_F(RequestDirTest, RemovingAllNotifiesEachKeyOnceEvenWhenObserversRemoveToo) {
  for (const char* uri : {"a", "b", "c", "d"}) dir->requestIs(Request(RequestKey(Retra::GET, uri)));
  recorder->log.clear();
  // The first notification removes another member itself: it is notified once, not twice.
  recorder->reaction = [&](const RequestKey&) {
    recorder->reaction = nullptr;
    for (const char* uri : {"a", "b", "c", "d"}) {
      RequestKey other(Retra::GET, uri);
      if (dir->request().count(other)) {
        (void)dir->requestDel(other);
        break;
      }
    }
  };
  dir->requestDelAll();
  EXPECT_TRUE(dir->request().empty());
  Log keys;
  for (const std::string& entry : recorder->log) {
    if (entry != "*") keys.push_back(entry);
  }
  std::sort(keys.begin(), keys.end());
  EXPECT_EQ(keys, (Log{"a", "b", "c", "d"}));
  EXPECT_EQ(recorder->log.size(), 8u);
}

TEST_F(RequestDirTest, AttributesAndTypeAreRegistered) {
  EXPECT_EQ(RequestDir::Attr::request, 258u);
  EXPECT_EQ(dir->typeNode(), RequestDir::staticTypeNode());
  EXPECT_EQ(dir->typeNode()->name(), "Retra::RequestDir");
  EXPECT_EQ(dir->typeNode()->attributeName(258), "request");
  EXPECT_EQ(Orb::typeNode("Retra::RequestDir"), RequestDir::staticTypeNode());
}

}  // namespace
