// The two directories of the model: requests kept by value, responses created under their
// directory.
#include <gtest/gtest.h>

#include <algorithm>

#include "Retra/model/RequestDir.h"
#include "Retra/model/ResponseDir.h"
#include "model/support/Recorder.h"

namespace {

using Retra::Request;
using Retra::RequestKey;

class RequestRecorder : public Retra::RequestDir::NotifieeConst, public ModelTest::Recording {
 public:
  RETRA_REQUEST_DIR_ATTRIBUTES(MODEL_RECORD)
};
class ResponseRecorder : public Retra::ResponseDir::NotifieeConst, public ModelTest::Recording {
 public:
  RETRA_RESPONSE_DIR_ATTRIBUTES(MODEL_RECORD)
};

const RequestKey a(Retra::GET, "a"), b(Retra::HEAD, "b");

TEST(RequestDirTest, NotifiesEachRealChangeOfAMemberOnceAfterMakingIt) {
  auto dir = Orb::allocate<Retra::RequestDir>("retraRequest");
  auto recorder = Orb::allocate<RequestRecorder>();
  recorder->notifierIs(dir);
  Request request(a);
  dir->requestIs(request);
  dir->requestIs(Request(request));  // equal: silent
  request.headerIs("Accept", "text/html");
  dir->requestIs(request);
  EXPECT_EQ(dir->request(a).header("Accept"), "text/html");
  bool goneInCallback = false;
  recorder->reaction = [&](const std::string&) { goneInCallback = !dir->request().count(a); };
  EXPECT_TRUE(dir->requestDel(a) == request);
  EXPECT_TRUE(goneInCallback);
  (void)dir->requestDel(a);  // absent: silent
  EXPECT_EQ(recorder->log.size(), 6u);

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

TEST(ResponseDirTest, CreatesResponsesUnderItselfAndLetsGoOfThemBeforeTelling) {
  auto dir = Orb::allocate<Retra::ResponseDir>("retraResponse");
  auto recorder = Orb::allocate<ResponseRecorder>();
  recorder->notifierIs(dir);
  Orb::Ptr<Retra::Response> seen;
  recorder->reaction = [&](const std::string&) { seen = dir->response(a); };
  auto response = dir->responseIs(a);
  EXPECT_EQ(seen, response);                // inserted before the notification
  EXPECT_EQ(dir->responseIs(a), response);  // found: silent
  recorder->reaction = [&](const std::string&) { seen = response->parent() ? response : nullptr; };
  EXPECT_EQ(dir->responseDel(a), response);
  EXPECT_EQ(seen, nullptr);  // no parent any more when told
  auto again = dir->responseIs(b);
  dir->responseDelAll();
  EXPECT_EQ(again->parent(), nullptr);
  EXPECT_EQ(again->references(), 1u);  // the directory let go of it
}

}  // namespace
