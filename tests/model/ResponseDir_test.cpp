#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <string>
#include <vector>

#include "Orb/Exception.h"
#include "Orb/Ptr.h"
#include "Retra/model/ResponseDir.h"

namespace {

using Retra::RequestKey;
using Retra::Response;
using Retra::ResponseDir;
using Log = std::vector<std::string>;

// Records the directory's notifications as "uri" (keyed) and "*" (immediate), and can react.
class Recorder : public ResponseDir::NotifieeConst {
 public:
  Log log;
  std::function<void(const RequestKey&)> reaction;

  void onResponse(const RequestKey& key) override {
    log.push_back(key.uri().str());
    if (reaction) reaction(key);
  }
  void onResponseImmediate() override { log.push_back("*"); }
};

struct ResponseDirTest : testing::Test {
  Orb::Ptr<ResponseDir> dir = Orb::allocate<ResponseDir>("retraResponse");
  Orb::Ptr<Recorder> recorder = Orb::allocate<Recorder>();
  RequestKey a{Retra::GET, "a"};
  RequestKey b{Retra::HEAD, "b"};
  void SetUp() override { recorder->notifierIs(dir); }
};

TEST_F(ResponseDirTest, ResponseIsFindsOrCreatesUnderTheDirectory) {
  Orb::Ptr<Response> seen;
  recorder->reaction = [&](const RequestKey& key) { seen = dir->response(key); };
  auto response = dir->responseIs(a);
  ASSERT_NE(response, nullptr);
  EXPECT_EQ(seen, response);  // inserted before the notification
  EXPECT_EQ(response->requestKey(), a);
  EXPECT_EQ(response->parent(), dir.ptr());
  EXPECT_EQ(response->parentAttrName(), "response");
  EXPECT_EQ(response->fullName(), "retraResponse/GET a");
  EXPECT_EQ(recorder->log, (Log{"a", "*"}));

  EXPECT_EQ(dir->responseIs(a), response);
  EXPECT_EQ(recorder->log.size(), 2u);
  EXPECT_EQ(dir->response(b), nullptr);  // lookup creates nothing
  EXPECT_EQ(dir->response().size(), 1u);
  EXPECT_EQ(recorder->log.size(), 2u);
}

TEST_F(ResponseDirTest, RemovalClearsTheParentBeforeNotifying) {
  auto response = dir->responseIs(a);
  recorder->log.clear();
  bool orphanInCallback = false;
  recorder->reaction = [&](const RequestKey& key) {
    orphanInCallback = dir->response(key) == nullptr && response->parent() == nullptr;
  };
  EXPECT_EQ(dir->responseDel(a), response);
  EXPECT_TRUE(orphanInCallback);
  EXPECT_EQ(response->parentAttrId(), 0u);
  EXPECT_EQ(dir->entity(response->name()), nullptr);
  EXPECT_EQ(recorder->log, (Log{"a", "*"}));

  EXPECT_EQ(dir->responseDel(a), nullptr);  // absent: silent
  EXPECT_EQ(recorder->log.size(), 2u);

  dir->responseIs(b);
  recorder->log.clear();
  recorder->reaction = nullptr;
  EXPECT_EQ(dir->responseDel(dir->response().begin())->requestKey(), b);
  EXPECT_EQ(recorder->log, (Log{"b", "*"}));
}

TEST_F(ResponseDirTest, RemovingAllNotifiesEachKeyAndReleasesTheResponses) {
  auto kept = dir->responseIs(a);
  dir->responseIs(b);
  dir->responseIs(RequestKey(Retra::PUT, "c"));
  recorder->log.clear();
  dir->responseDelAll();
  EXPECT_TRUE(dir->response().empty());
  EXPECT_TRUE(dir->entities().empty());
  Log keys;
  for (const std::string& entry : recorder->log) {
    if (entry != "*") keys.push_back(entry);
  }
  std::sort(keys.begin(), keys.end());
  EXPECT_EQ(keys, (Log{"a", "b", "c"}));
  EXPECT_EQ(recorder->log.size(), 6u);
  EXPECT_EQ(kept->parent(), nullptr);
  EXPECT_EQ(kept->references(), 1u);  // the directory let go of it
}

TEST_F(ResponseDirTest, AttributesAndTypeAreRegistered) {
  EXPECT_EQ(ResponseDir::Attr::response, 258u);
  EXPECT_EQ(dir->typeNode()->name(), "Retra::ResponseDir");
  EXPECT_EQ(Orb::typeNode("Retra::ResponseDir"), ResponseDir::staticTypeNode());
}

}  // namespace
