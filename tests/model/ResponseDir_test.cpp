#include "Retra/model/ResponseDir.h"

#include <gtest/gtest.h>

#include "model/support/Recorder.h"

namespace {

using ModelTest::Log;
using Retra::RequestKey;

class Recorder : public Retra::ResponseDir::NotifieeConst, public ModelTest::Recording {
 public:
  RETRA_RESPONSE_DIR_ATTRIBUTES(MODEL_RECORD)
};

TEST(ResponseDirTest, FindsCreatesAndRemovesResponsesUnderItselfNotifyingRealChanges) {
  auto dir = Orb::allocate<Retra::ResponseDir>("retraResponse");
  auto recorder = Orb::allocate<Recorder>();
  recorder->notifierIs(dir);
  const RequestKey a(Retra::GET, "a"), b(Retra::HEAD, "b");
  Orb::Ptr<Retra::Response> seen;
  recorder->reaction = [&](const std::string&) { seen = dir->response(a); };
  auto response = dir->responseIs(a);
  EXPECT_EQ(seen, response);  // inserted before the notification
  EXPECT_EQ(response->fullName(), "retraResponse/GET a");
  EXPECT_EQ(dir->responseIs(a), response);  // found: silent
  EXPECT_EQ(dir->response(b), nullptr);     // a look-up creates nothing

  recorder->reaction = [&](const std::string&) { seen = response->parent() ? response : nullptr; };
  EXPECT_EQ(dir->responseDel(a), response);
  EXPECT_EQ(seen, nullptr);                 // no parent any more when told
  EXPECT_EQ(dir->responseDel(a), nullptr);  // absent: silent
  dir->responseIs(b);
  recorder->reaction = nullptr;
  auto again = dir->responseIs(a);
  dir->responseDelAll();
  EXPECT_EQ(again->parent(), nullptr);
  EXPECT_EQ(again->references(), 1u);  // the directory let go of it
  EXPECT_EQ(recorder->log.size(), 12u);
  EXPECT_EQ(recorder->log[0], "onResponse(a)");
}

}  // namespace
