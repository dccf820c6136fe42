#include "Retra/model/RequestDir.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "model/support/Recorder.h"

namespace {

using Retra::Request;
using Retra::RequestKey;

class Recorder : public Retra::RequestDir::NotifieeConst, public ModelTest::Recording {
 public:
  RETRA_REQUEST_DIR_ATTRIBUTES(MODEL_RECORD)
};

TEST(RequestDirTest, NotifiesEachRealChangeOfAMemberOnce) {
  auto dir = Orb::allocate<Retra::RequestDir>("retraRequest");
  auto recorder = Orb::allocate<Recorder>();
  recorder->notifierIs(dir);
  const RequestKey a(Retra::GET, "a");
  Request request(a);
  dir->requestIs(request);
  dir->requestIs(Request(request));  // equal: silent
  request.headerIs("Accept", "text/html");
  dir->requestIs(request);
  EXPECT_EQ(dir->request(a).header("Accept"), "text/html");
  EXPECT_EQ(dir->request(RequestKey(Retra::GET, "b")).requestKey(), RequestKey());  // absent

  bool goneInCallback = false;
  recorder->reaction = [&](const std::string&) { goneInCallback = !dir->request().count(a); };
  EXPECT_TRUE(dir->requestDel(a) == request);
  EXPECT_TRUE(goneInCallback);
  (void)dir->requestDel(a);  // absent: silent
  EXPECT_EQ(recorder->joined(),
            "onRequest(a) onRequestImmediate onRequest(a) onRequestImmediate onRequest(a) "
            "onRequestImmediate");

  for (const char* uri : {"a", "b", "c"}) dir->requestIs(Request(RequestKey(Retra::GET, uri)));
  recorder->log.clear();
  // The first notification removes another member itself: that one is notified once, not twice.
  recorder->reaction = [&](const std::string&) {
    recorder->reaction = nullptr;
    (void)dir->requestDel(dir->request().begin());
  };
  dir->requestDelAll();
  EXPECT_TRUE(dir->request().empty());
  std::sort(recorder->log.begin(), recorder->log.end());
  EXPECT_EQ(recorder->joined(),
            "onRequest(a) onRequest(b) onRequest(c) onRequestImmediate onRequestImmediate "
            "onRequestImmediate");
}

}  // namespace
